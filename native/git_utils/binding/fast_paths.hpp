// The native fast paths, each named once. A fast path stands in for objects
// of the standard library or the module (a process spawn, a path class, the
// clock, the logger, a record class) and may run only while they are the
// genuine ones: loading decides that with the path's one builder, which
// records a Guard in module state, and each call asks one question,
// allowed().
//
// A new fast path is:
// 1. one X(name) line in GU_FAST_PATHS below;
// 2. its builder in its subsystem's source, declared in that subsystem's
//    header: a GuardBuilder given the subject and what must stay as it is;
// 3. one row in module.cpp's kFastPaths (checked at compile time: one
//    builder for each path);
// 4. allowed(st, FastPath::name) (or allowed_for) where the call decides;
// 5. a case in the host-tooling test, which reads this list and fails until
//    the new path has one.
// State, traversal and clearing need no edit.
#pragma once

#include <Python.h>

#include <cstddef>
#include <optional>
#include <span>

#include "git_utils/binding/genuine.hpp"
#include "git_utils/binding/ref.hpp"

// Each fast path with what it stands in for. Tests read this list.
#define GU_FAST_PATHS(X)                                                                \
    X(spawn)          /* subprocess.run, Popen and its methods: git spawned natively */ \
    X(path)           /* pathlib's concrete class and its bases: joins done natively */ \
    X(path_stat)      /* what that class's stat() reaches: the .git test's stat */      \
    X(clock)          /* the C function behind datetime.now: relative specs natively */ \
    X(logger)         /* logging.Logger's record methods: log records made natively */  \
    X(file_change)    /* FileChange as loading made it: records filled natively */      \
    X(commit_changes) /* CommitChanges, likewise */                                     \
    X(line_span)      /* LineSpan, likewise */

namespace gu {

struct ModuleState;

enum class FastPath : std::size_t {
#define GU_FAST_PATH_ENUM(n) n,
    GU_FAST_PATHS(GU_FAST_PATH_ENUM)
#undef GU_FAST_PATH_ENUM
        count_
};

inline constexpr std::size_t kFastPathCount = static_cast<std::size_t>(FastPath::count_);

// What one fast path's builder does at load: records in `guard` the subject
// and what must stay as it is (nothing recorded, or a rejection: the path
// never runs). -1 with an exception only for an error of the interpreter.
using GuardBuild = int (*)(PyObject* module, GuardBuilder& guard);

struct FastPathDef {
    FastPath path;
    GuardBuild build;
};

// At load: runs each fast path's builder, in the order given, into module
// state.
int build_fast_paths(PyObject* module, std::span<const FastPathDef> defs);

// Whether the fast path may run now: its guard holds (pointer comparisons).
bool allowed(const ModuleState* st, FastPath path);

// The same, for a call that found `found` where the path's subject was.
bool allowed_for(const ModuleState* st, FastPath path, PyObject* found);

// The object the path stands in for, as loading found it; null when it never runs.
PyObject* subject_of(const ModuleState* st, FastPath path);

// What a native path answers: its result (a new reference, or null with an
// exception set), or nothing: it declined, with no exception set, and the
// caller takes the Python path.
using Native = std::optional<Ref>;
inline constexpr std::nullopt_t declined = std::nullopt;

}  // namespace gu
