// History over time: time specs, the authors of a period, commit counting
// and the commit at a moment.
#pragma once

#include <Python.h>

#include "git_utils/function.hpp"

namespace gu {

// At load: the datetime C API, and datetime.now as the original clock when it
// is datetime's own C function.
int record_clock_originals(PyObject* module);

}  // namespace gu
