// The module's log lines. With the standard Logger the record is made as
// Logger.debug/warning make it, but it names the module's function and file
// rather than the host's caller, as a Python module's own line would.
#pragma once

#include <Python.h>

#include <initializer_list>

#include "git_utils/binding/genuine.hpp"

namespace gu {

enum class LogLevel { debug = 10, warning = 30 };

// logger.<level>(format, *values) through the namespace's logger, logged as
// from `function`. 0, or -1 with an exception.
int log_line(PyObject* module, LogLevel level, const char* function, const char* format,
             std::initializer_list<PyObject*> values);

// The builder of the logger's fast path: logging.Logger, when it and the
// methods a log call runs are logging's own.
int logger_guard(PyObject* module, GuardBuilder& guard);

}  // namespace gu
