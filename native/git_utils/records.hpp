// The three record classes: real frozen dataclasses made at load, and the
// native way to fill an instance, which gives exactly what calling the class
// gives (the same instance dict, in the same order).
#pragma once

#include <Python.h>

#include "git_utils/ref.hpp"
#include "git_utils/state.hpp"

namespace gu {

enum class Record { file_change, commit_changes, line_span };

// At load: the record class bound under `name` (FileChange, CommitChanges
// or LineSpan), a frozen dataclass.
Ref make_record_class(PyObject* module, Name name);

// Whether instances of `cls` may be filled natively: it is the class that
// loading made, with the __init__ and __new__ it had then (a host may patch
// either in place). A few identity checks; the verdict holds until Python
// code next runs.
bool fills_natively(const ModuleState* st, Record kind, PyObject* cls);

// An instance of the class loading made, filled natively with `values` for
// its fields in declared order; only while fills_natively holds.
Ref fill_record(const ModuleState* st, Record kind, PyObject* cls, PyObject* const* values);

// An instance of `cls` (found in the namespace under the record's name) with
// `values` for its fields in declared order: filled natively while
// fills_natively holds, else the class is called as the parsers call it:
// FileChange(path, status, additions, deletions, old_path=...),
// CommitChanges(timestamp, files), LineSpan(start, end, added).
Ref make_record(const ModuleState* st, Record kind, PyObject* cls, PyObject* const* values);

}  // namespace gu
