#include "git_utils/binding/genuine.hpp"

#include <cstring>
#include <initializer_list>
#include <iterator>

namespace gu {
namespace {

// Reading a class's __annotations__ stores an empty dict in the class on some
// versions; that entry changes no method, so the comparison passes over it.
bool is_annotations_key(PyObject* key) {
    return PyUnicode_Check(key) && PyUnicode_CompareWithASCIIString(key, "__annotations__") == 0;
}

bool dict_matches(PyObject* dict, PyObject* snapshot) {
    const Py_ssize_t n = PyTuple_GET_SIZE(snapshot);
    Py_ssize_t pos = 0;
    Py_ssize_t i = 0;
    PyObject *key, *value;
    while (PyDict_Next(dict, &pos, &key, &value)) {
        if (i < n && key == PyTuple_GET_ITEM(snapshot, i) && value == PyTuple_GET_ITEM(snapshot, i + 1))
            i += 2;
        else if (!is_annotations_key(key))
            return false;
    }
    return i == n;
}

Ref snapshot_of(PyObject* dict) {
    Ref items = Ref::steal(PyTuple_New(2 * PyDict_GET_SIZE(dict)));
    if (!items) return Ref();
    Py_ssize_t pos = 0;
    Py_ssize_t i = 0;
    PyObject *key, *value;
    while (PyDict_Next(dict, &pos, &key, &value)) {
        PyTuple_SET_ITEM(items.get(), i++, Ref::borrow(key).release());
        PyTuple_SET_ITEM(items.get(), i++, Ref::borrow(value).release());
    }
    return items;
}

int append_all(PyObject* list, std::initializer_list<PyObject*> items) {
    for (PyObject* item : items)
        if (PyList_Append(list, item) < 0) return -1;
    return 0;
}

// Whether calling `x` runs a __call__ written in Python (a mock, a host's
// callable object): 1, 0, or -1 with an exception.
int runs_python_call(PyObject* x) {
    if (!PyCallable_Check(x)) return 0;
    Ref call = Ref::steal(PyObject_GetAttrString(reinterpret_cast<PyObject*>(Py_TYPE(x)), "__call__"));
    if (!call) return -1;
    return PyFunction_Check(call.get()) ? 1 : 0;
}

// Whether the function `f` is foreign to `modules`. A method that a
// contextlib decorator made counts as the function it wraps.
int foreign_function(PyObject* f, PyObject* modules) {
    const int own = defined_in(f, modules);
    if (own != 0) return own < 0 ? -1 : 0;
    Ref decorators = module_namespaces("contextlib");
    const int decorated = decorators ? defined_in(f, decorators.get()) : -1;
    if (decorated <= 0) return decorated < 0 ? -1 : 1;
    Ref wrapped = Ref::steal(PyObject_GetAttrString(f, "__wrapped__"));
    if (!wrapped) {
        PyErr_Clear();
        return 1;
    }
    return foreign_function(wrapped.get(), modules);
}

}  // namespace

Ref class_dict_of(PyObject* type) {
#if PY_VERSION_HEX >= 0x030C0000
    return Ref::steal(PyType_GetDict(reinterpret_cast<PyTypeObject*>(type)));
#else
    return Ref::borrow(reinterpret_cast<PyTypeObject*>(type)->tp_dict);
#endif
}

bool guard_holds(const Guard& guard) {
    if (guard.subject == nullptr) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(guard.entries); i += 3) {
        PyObject* found =
            PyDict_GetItemWithError(PyTuple_GET_ITEM(guard.entries, i), PyTuple_GET_ITEM(guard.entries, i + 1));
        if (found != PyTuple_GET_ITEM(guard.entries, i + 2)) {
            PyErr_Clear();
            return false;
        }
    }
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(guard.missing); i += 2) {
        if (PyDict_GetItemWithError(PyTuple_GET_ITEM(guard.missing, i), PyTuple_GET_ITEM(guard.missing, i + 1)) ||
            PyErr_Occurred()) {
            PyErr_Clear();
            return false;
        }
    }
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(guard.dicts); i += 2)
        if (!dict_matches(PyTuple_GET_ITEM(guard.dicts, i), PyTuple_GET_ITEM(guard.dicts, i + 1))) return false;
    return guard.impl == nullptr || PyCFunction_GetFunction(guard.subject) == guard.impl;
}

void clear_guard(Guard& guard) {
    for (PyObject** o : owned(guard)) Py_CLEAR(*o);
    guard.impl = nullptr;
}

GuardBuilder::GuardBuilder()
    : entries_(Ref::steal(PyList_New(0))), missing_(Ref::steal(PyList_New(0))), dicts_(Ref::steal(PyList_New(0))) {
    failed_ = !entries_ || !missing_ || !dicts_;
}

void GuardBuilder::entry(PyObject* dict, const char* key, PyObject* value) {
    if (failed_ || !genuine_) return;
    if (dict == nullptr || !PyDict_Check(dict)) return reject();
    Ref name = Ref::steal(PyUnicode_InternFromString(key));
    if (!name) {
        failed_ = true;
        return;
    }
    PyObject* found = PyDict_GetItemWithError(dict, name.get());
    if (found == nullptr) {
        if (PyErr_Occurred()) failed_ = true;
        return reject();
    }
    if (value != nullptr && found != value) return reject();
    if (append_all(entries_.get(), {dict, name.get(), found}) < 0) failed_ = true;
}

void GuardBuilder::entry_in_class(PyObject* type, const char* key, PyObject* value) {
    if (failed_ || !genuine_) return;
    if (!PyType_Check(type)) return reject();
    Ref dict = class_dict_of(type);
    entry(dict.get(), key, value);
}

void GuardBuilder::absent_in_class(PyObject* type, const char* key) {
    if (failed_ || !genuine_) return;
    if (!PyType_Check(type)) return reject();
    Ref dict = class_dict_of(type);
    Ref name = Ref::steal(PyUnicode_InternFromString(key));
    if (!dict || !name) {
        failed_ = true;
        return;
    }
    const int present = PyDict_Contains(dict.get(), name.get());
    if (present != 0) return present < 0 ? fail() : reject();
    if (append_all(missing_.get(), {dict.get(), name.get()}) < 0) failed_ = true;
}

void GuardBuilder::has_attributes(PyObject* type, std::span<const char* const> names) {
    for (const char* name : names) {
        if (failed_ || !genuine_) return;
        Ref attribute = Ref::steal(PyObject_GetAttrString(type, name));
        if (!attribute) {
            PyErr_Clear();
            reject();
        }
    }
}

void GuardBuilder::class_dict(PyObject* type) {
    if (failed_ || !genuine_) return;
    if (!PyType_Check(type)) return reject();
    Ref dict = class_dict_of(type);
    if (!dict) return reject();
    Ref snapshot = snapshot_of(dict.get());
    if (!snapshot || append_all(dicts_.get(), {dict.get(), snapshot.get()}) < 0) failed_ = true;
}

void GuardBuilder::empty_dict(PyObject* dict) {
    if (failed_ || !genuine_) return;
    if (!PyDict_Check(dict) || PyDict_GET_SIZE(dict) != 0) return reject();
    Ref snapshot = Ref::steal(PyTuple_New(0));
    if (!snapshot || append_all(dicts_.get(), {dict, snapshot.get()}) < 0) failed_ = true;
}

void GuardBuilder::genuine_function(PyObject* f, PyObject* modules) {
    if (failed_ || !genuine_) return;
    const int own = defined_in(f, modules);
    if (own <= 0) {
        failed_ = own < 0;
        reject();
    }
}

void GuardBuilder::genuine_class(PyObject* type, PyObject* modules) {
    if (failed_ || !genuine_) return;
    if (!PyType_Check(type)) return reject();
    Ref mro = Ref::steal(PyObject_GetAttrString(type, "__mro__"));
    if (!mro || !PyTuple_Check(mro.get())) {
        PyErr_Clear();
        return reject();
    }
    for (Py_ssize_t m = 0; m < PyTuple_GET_SIZE(mro.get()); ++m) {
        PyObject* base = PyTuple_GET_ITEM(mro.get(), m);
        if (base == reinterpret_cast<PyObject*>(&PyBaseObject_Type)) continue;
        Ref dict = class_dict_of(base);
        if (!dict) return reject();
        Py_ssize_t pos = 0;
        PyObject *key, *value;
        while (PyDict_Next(dict.get(), &pos, &key, &value)) {
            // Look through classmethod, staticmethod and property to the functions they hold.
            Ref inner[3];
            if (PyObject_TypeCheck(value, &PyClassMethod_Type) || PyObject_TypeCheck(value, &PyStaticMethod_Type)) {
                inner[0] = Ref::steal(PyObject_GetAttrString(value, "__func__"));
            } else if (PyObject_TypeCheck(value, &PyProperty_Type)) {
                // Each read only while the one before succeeded: none with an exception set.
                const char* const accessors[] = {"fget", "fset", "fdel"};
                for (std::size_t i = 0; i < std::size(accessors) && !PyErr_Occurred(); ++i)
                    inner[i] = Ref::steal(PyObject_GetAttrString(value, accessors[i]));
            } else {
                inner[0] = Ref::borrow(value);
            }
            for (const Ref& v : inner) {
                if (PyErr_Occurred()) {
                    failed_ = true;
                    return;
                }
                // Classes, and callables whose call is C (built-in
                // functions, operator.itemgetter), run no host code.
                PyObject* x = v.get();
                if (x == nullptr || PyType_Check(x)) continue;
                const int foreign = PyFunction_Check(x) ? foreign_function(x, modules) : runs_python_call(x);
                if (foreign != 0) {
                    if (PyErr_Occurred()) failed_ = true;
                    return reject();
                }
            }
        }
        class_dict(base);
    }
}

int GuardBuilder::finish(Guard& out) {
    clear_guard(out);  // a reload decides anew
    if (failed_) return -1;
    if (!genuine_ || !subject_) return 0;
    out.subject = subject_.release();
    out.impl = impl_;
    out.entries = PyList_AsTuple(entries_.get());
    out.missing = PyList_AsTuple(missing_.get());
    out.dicts = PyList_AsTuple(dicts_.get());
    if (out.entries == nullptr || out.missing == nullptr || out.dicts == nullptr) {
        clear_guard(out);
        return -1;
    }
    return 0;
}

Ref module_namespaces(const char* name) {
    PyObject* modules = PyImport_GetModuleDict();
    Ref namespaces = Ref::steal(PyList_New(0));
    Ref items = Ref::steal(PyDict_Items(modules));
    if (!namespaces || !items) return Ref();
    const std::size_t length = std::strlen(name);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
        PyObject* key = PyTuple_GET_ITEM(PyList_GET_ITEM(items.get(), i), 0);
        PyObject* module = PyTuple_GET_ITEM(PyList_GET_ITEM(items.get(), i), 1);
        const char* text = PyUnicode_Check(key) ? PyUnicode_AsUTF8(key) : nullptr;
        if (text == nullptr) {
            PyErr_Clear();
            continue;
        }
        if (std::strncmp(text, name, length) != 0 || (text[length] != '\0' && text[length] != '.')) continue;
        if (!PyModule_Check(module)) continue;
        if (PyList_Append(namespaces.get(), PyModule_GetDict(module)) < 0) return Ref();
    }
    return Ref::steal(PyList_AsTuple(namespaces.get()));
}

// By the globals, not the code's file name: a standard-library module may be
// frozen into the interpreter (its code names "<frozen genericpath>", not
// the file its __file__ gives), and a wrapper made elsewhere with
// functools.wraps keeps the globals of the module that made it.
int defined_in(PyObject* f, PyObject* modules) {
    if (!PyFunction_Check(f)) return 0;
    PyObject* globals = PyFunction_GetGlobals(f);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(modules); ++i)
        if (globals == PyTuple_GET_ITEM(modules, i)) return 1;
    return 0;
}

}  // namespace gu
