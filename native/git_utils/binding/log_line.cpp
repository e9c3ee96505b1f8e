#include "git_utils/binding/log_line.hpp"

#include <iterator>

#include "git_utils/binding/genuine.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/binding/ref.hpp"
#include "git_utils/binding/state.hpp"

namespace gu {
namespace {

// What Logger.debug/warning run inside the logger on the way to the record
// (all defined in Logger itself); the record path takes their place, so
// neither the class nor the instance may have replaced them.
constexpr const char* kReplacedMethods[] = {"debug", "warning", "_log", "findCaller"};
// What the record path still calls through the logger, as those would.
constexpr const char* kCalledMethods[] = {"isEnabledFor", "makeRecord", "handle"};

// Whether `logger` is the standard Logger with logging's own methods:
// 1, 0, or -1 with an exception.
int standard_logger(const ModuleState* st, PyObject* logger) {
    if (!allowed_for(st, FastPath::logger, reinterpret_cast<PyObject*>(Py_TYPE(logger)))) return 0;
    Ref dict = Ref::steal(PyObject_GenericGetDict(logger, nullptr));
    if (!dict) return -1;
    for (const char* name : kReplacedMethods) {
        Ref key = text(name);
        if (!key) return -1;
        const int shadowed = PyDict_Contains(dict.get(), key.get());
        if (shadowed != 0) return shadowed < 0 ? -1 : 0;
    }
    return 1;
}

// The last component of the module's import name: what LogRecord.module
// says for a module's own source file.
Ref short_module_name(const ModuleState* st) {
    Ref dot = text(".");
    if (!dot) return Ref();
    Ref parts = Ref::steal(PyUnicode_RSplit(st->module_name, dot.get(), 1));
    if (!parts) return Ref();
    return Ref::borrow(PyList_GET_ITEM(parts.get(), PyList_GET_SIZE(parts.get()) - 1));
}

// Logger._log's record for a line of `function`, handed to logger.handle.
int log_record(PyObject* module, PyObject* logger, LogLevel level, const char* function, PyObject* format,
               PyObject* values) {
    const ModuleState* st = state_of(module);
    Ref number = Ref::steal(PyLong_FromLong(static_cast<long>(level)));
    if (!number) return -1;
    Ref enabled = Ref::steal(PyObject_CallMethodOneArg(logger, st->str_is_enabled_for, number.get()));
    if (!enabled) return -1;
    const int on = PyObject_IsTrue(enabled.get());
    if (on <= 0) return on;

    // logging._srcfile set to None switches the caller lookup off: then the
    // record names no file and no function, as _log makes it.
    PyObject* logging = st->originals[index(Name::logging)];
    Ref srcfile;
    if (PyModule_Check(logging) && dict_get(PyModule_GetDict(logging), "_srcfile", srcfile) < 0) return -1;
    const int find = srcfile ? PyObject_IsTrue(srcfile.get()) : 0;
    if (find < 0) return -1;
    Ref file;
    if (find && dict_get(PyModule_GetDict(module), "__file__", file) < 0) return -1;
    Ref path = file ? Ref::borrow(file.get()) : text("(unknown file)");
    Ref func = file ? text(function) : text("(unknown function)");
    if (!path || !func) return -1;
    Ref name = Ref::steal(PyObject_GetAttrString(logger, "name"));
    if (!name) return -1;
    Ref line = Ref::steal(PyLong_FromLong(0));
    if (!line) return -1;
    PyObject* argv[] = {logger, name.get(), number.get(), path.get(), line.get(), format,
                        values, Py_None,    func.get(),   Py_None,    Py_None};
    Ref record = Ref::steal(PyObject_VectorcallMethod(st->str_make_record, argv, std::size(argv), nullptr));
    if (!record) return -1;
    if (file) {
        Ref short_name = short_module_name(st);
        if (!short_name || PyObject_SetAttrString(record.get(), "module", short_name.get()) < 0) return -1;
    }
    Ref handled = Ref::steal(PyObject_CallMethodOneArg(logger, st->str_handle, record.get()));
    return handled ? 0 : -1;
}

}  // namespace

int log_line(PyObject* module, LogLevel level, const char* function, const char* format,
             std::initializer_list<PyObject*> values) {
    const ModuleState* st = state_of(module);
    Ref logger = lookup(module, Name::logger);
    Ref fmt = text(format);
    Ref tuple = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(values.size())));
    if (!logger || !fmt || !tuple) return -1;
    Ref call_args = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(values.size()) + 1));
    if (!call_args) return -1;
    PyTuple_SET_ITEM(call_args.get(), 0, fmt.newref());
    Py_ssize_t i = 0;
    for (PyObject* v : values) {
        PyTuple_SET_ITEM(tuple.get(), i, Ref::borrow(v).release());
        PyTuple_SET_ITEM(call_args.get(), ++i, Ref::borrow(v).release());
    }

    const int standard = standard_logger(st, logger.get());
    if (standard < 0) return -1;
    if (standard) return log_record(module, logger.get(), level, function, fmt.get(), tuple.get());

    // Any other logger gets the plain call.
    Ref method = Ref::steal(PyObject_GetAttr(logger.get(), level == LogLevel::debug ? st->str_debug : st->str_warning));
    if (!method) return -1;
    Ref r = Ref::steal(PyObject_Call(method.get(), call_args.get(), nullptr));
    return r ? 0 : -1;
}

int logger_guard(PyObject* module, GuardBuilder& guard) {
    PyObject* logging = state_of(module)->originals[index(Name::logging)];
    if (!PyModule_Check(logging)) return 0;
    Ref logger_class;
    if (dict_get(PyModule_GetDict(logging), "Logger", logger_class) < 0) return -1;
    if (!logger_class || !PyType_Check(logger_class.get())) return 0;
    Ref modules = module_namespaces("logging");
    if (!modules) return -1;
    // Only what the record path takes the place of must be logging's own; a
    // host's wrapper elsewhere (sentry-sdk wraps callHandlers) still runs,
    // through logger.handle.
    guard.subject(logger_class.get());
    for (const char* name : kReplacedMethods) {
        if (!guard.ok()) break;  // an error is pending: no more lookups
        Ref method = Ref::steal(PyObject_GetAttrString(logger_class.get(), name));
        if (!method) {
            PyErr_Clear();
            guard.reject();
            break;
        }
        guard.entry_in_class(logger_class.get(), name, method.get());
        guard.genuine_function(method.get(), modules.get());
    }
    guard.has_attributes(logger_class.get(), kCalledMethods);
    return guard.ok() ? 0 : -1;
}

}  // namespace gu
