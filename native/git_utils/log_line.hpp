// The module's log lines. With the standard Logger the record is made as
// Logger.debug/warning make it, but it names the module's function and file
// rather than the host's caller, as a Python module's own line would.
#pragma once

#include <Python.h>

#include <initializer_list>

namespace gu {

enum class LogLevel { debug = 10, warning = 30 };

// logger.<level>(format, *values) through the namespace's logger, logged as
// from `function`. 0, or -1 with an exception.
int log_line(PyObject* module, LogLevel level, const char* function, const char* format,
             std::initializer_list<PyObject*> values);

// At load: logging.Logger as the original when it and the methods a log
// call runs are logging's own.
int record_logging_originals(PyObject* module);

}  // namespace gu
