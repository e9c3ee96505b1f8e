// The few C API calls the binding layer needs that older interpreters lack,
// written in terms of what those interpreters have, so the code itself uses
// one spelling: the one newer headers keep and do not mark deprecated.
#pragma once

#include <Python.h>

#if PY_VERSION_HEX < 0x030C0000
#include <structmember.h>  // member types and flags, in Python.h from 3.12

#define Py_T_PYSSIZET T_PYSSIZET
#define Py_READONLY READONLY

// The pending exception as one object (normalised, traceback attached), and
// the call that raises it again.
inline PyObject* PyErr_GetRaisedException() {
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (value != nullptr && traceback != nullptr) PyException_SetTraceback(value, traceback);
    Py_XDECREF(type);
    Py_XDECREF(traceback);
    return value;
}

inline void PyErr_SetRaisedException(PyObject* exc) {
    if (exc == nullptr) {
        PyErr_Clear();
        return;
    }
    PyErr_Restore(Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(exc))), exc, PyException_GetTraceback(exc));
}
#endif

#if PY_VERSION_HEX < 0x030D0000
// A strong reference to dict[key] in *result: 1 found, 0 missing (no
// exception), -1 error.
inline int PyDict_GetItemRef(PyObject* dict, PyObject* key, PyObject** result) {
    *result = Py_XNewRef(PyDict_GetItemWithError(dict, key));
    if (*result != nullptr) return 1;
    return PyErr_Occurred() ? -1 : 0;
}

inline int PyDict_GetItemStringRef(PyObject* dict, const char* key, PyObject** result) {
    PyObject* key_obj = PyUnicode_FromString(key);
    if (key_obj == nullptr) {
        *result = nullptr;
        return -1;
    }
    const int found = PyDict_GetItemRef(dict, key_obj, result);
    Py_DECREF(key_obj);
    return found;
}

// Only the free-threaded build needs critical sections; with the global lock
// they are plain blocks, as the newer headers define them there too.
#define Py_BEGIN_CRITICAL_SECTION(op) {
#define Py_END_CRITICAL_SECTION() }
#endif
