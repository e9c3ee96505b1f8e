// The three record classes: real frozen dataclasses made at load, and the
// native way to fill an instance, which gives exactly what calling the class
// gives (the same instance dict, in the same order).
#pragma once

#include <Python.h>

#include "git_utils/binding/collaborators.hpp"
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

// How one call makes its records of one kind: with the class the namespace
// held under the record's name at the call's start, filled natively while
// that class is the one loading made and still genuine, else by calling it
// as the parsers call it: FileChange(path, status, additions, deletions,
// old_path=...), CommitChanges(timestamp, files), LineSpan(start, end, added).
class RecordMaker {
public:
    RecordMaker(PyObject* module, Record kind);

    // Whether a record made now is filled natively.
    bool fills() const;
    // For a call in which no Python code runs from here on, so that nothing
    // can patch the class meanwhile: fills() as it is now holds for every
    // record the call makes, and is returned.
    bool settle();
    // A record with `values` for its fields in declared order; null with an
    // exception set.
    Ref make(PyObject* const* values);

private:
    const ModuleState* st_;
    Record kind_;
    Collaborator cls_;
    bool settled_ = false;
    bool fills_settled_ = false;
};

}  // namespace gu
