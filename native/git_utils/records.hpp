// The three record classes: real frozen dataclasses made at load, and the
// native way to fill an instance, which gives exactly what calling the class
// gives (the same instance dict, in the same order).
#pragma once

#include <Python.h>

#include "git_utils/ref.hpp"
#include "git_utils/state.hpp"

namespace gu {

enum class Record { file_change, commit_changes, line_span };

// Creates the record classes and binds them in the namespace, in order.
int add_record_classes(PyObject* module);

// An instance of `cls` (found in the namespace under the record's name) with
// `values` for its fields in declared order. The class bound at load is
// filled natively; a replacement is called as the parsers call the class:
// FileChange(path, status, additions, deletions, old_path=...),
// CommitChanges(timestamp, files), LineSpan(start, end, added).
Ref make_record(const ModuleState* st, Record kind, PyObject* cls, PyObject* const* values);

}  // namespace gu
