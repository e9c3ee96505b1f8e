// Time specs: 7d, 24h, 30m, 2w or an ISO date into the local moment at which
// a period starts.
#pragma once

#include <Python.h>

#include <span>

#include "git_utils/binding/function.hpp"
#include "git_utils/binding/genuine.hpp"

namespace gu {

// parse_time_spec.
extern const std::span<const FunctionDef> kTimeSpecFunctions;

// The builder of the clock's fast path; it also keeps the datetime C API in
// module state. datetime.now as loading found it, when it is datetime's own
// C function, and that function behind it.
int clock_guard(PyObject* module, GuardBuilder& guard);

}  // namespace gu
