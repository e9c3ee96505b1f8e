// History over time: time specs, the authors of a period, commit counting
// and the commit at a moment.
#pragma once

#include <Python.h>

#include "git_utils/function.hpp"
#include "git_utils/genuine.hpp"

namespace gu {

// The builder of the clock's fast path; it also keeps the datetime C API in
// module state. datetime.now as loading found it, when it is datetime's own
// C function, and that function behind it.
int clock_guard(PyObject* module, GuardBuilder& guard);

}  // namespace gu
