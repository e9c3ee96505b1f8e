// The class of the module object: the interpreter's module type, with one
// addition. A module with state is executed once: importlib.reload runs
// its exec step again, but the interpreter skips it for every module that
// has state. A reload does assign the module's __spec__ anew, though, just
// before that step; the class notices that assignment while importlib
// reloads this module, and binds the namespace again, as a Python module's
// reload does.
#pragma once

#include <Python.h>

namespace gu {

// The module object for `spec` (the module's Py_mod_create): an instance of
// a class made for it, whose reload calls `reload_namespace`.
PyObject* create_module_object(PyObject* spec, PyModuleDef* def);

// Binds the namespace of a module that importlib reloads again, as loading
// bound it; -1 with an exception set when that failed. Defined with the
// namespace (module.cpp).
int reload_namespace(PyObject* module);

}  // namespace gu
