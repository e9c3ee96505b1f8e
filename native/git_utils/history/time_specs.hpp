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

// At state initialisation: the datetime C API, kept in module state (null
// when this interpreter's datetime has none; every moment is then built
// generically). Sets no exception.
void keep_datetime_api(PyObject* module);

// The builder of the clock's fast path: datetime.now as loading found it,
// when it is datetime's own C function, and that function behind it.
int clock_guard(PyObject* module, GuardBuilder& guard);

}  // namespace gu
