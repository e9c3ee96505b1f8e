// The three record classes: real frozen dataclasses made at load, and the
// native way to fill an instance, which gives exactly what calling the class
// gives (the same instance dict, in the same order).
#pragma once

#include <Python.h>

#include "git_utils/binding/fast_paths.hpp"
#include "git_utils/binding/ref.hpp"
#include "git_utils/binding/state.hpp"

namespace gu {

enum class Record { file_change, commit_changes, line_span };

// The fast path that fills records of `kind` natively.
constexpr FastPath fast_path_of(Record kind) {
    return kind == Record::file_change      ? FastPath::file_change
           : kind == Record::commit_changes ? FastPath::commit_changes
                                            : FastPath::line_span;
}

// At load: the record class bound under `name` (FileChange, CommitChanges
// or LineSpan), a frozen dataclass.
Ref make_record_class(PyObject* module, Name name);

// The builder of the fast path that fills records of `kind`: the class that
// loading made, with the __init__ and __new__ it had then.
int record_guard(PyObject* module, GuardBuilder& guard, Record kind);
template <Record kind>
int build_record_guard(PyObject* module, GuardBuilder& guard) {
    return record_guard(module, guard, kind);
}

// An instance of the class loading made, filled natively with `values` for
// its fields in declared order; only while its fast path is allowed.
Ref fill_record(const ModuleState* st, Record kind, PyObject* cls, PyObject* const* values);

// An instance of `cls` (found in the namespace under the record's name) with
// `values` for its fields in declared order: filled natively while
// its fast path is allowed, else the class is called as the parsers call it:
// FileChange(path, status, additions, deletions, old_path=...),
// CommitChanges(timestamp, files), LineSpan(start, end, added).
Ref make_record(const ModuleState* st, Record kind, PyObject* cls, PyObject* const* values);

}  // namespace gu
