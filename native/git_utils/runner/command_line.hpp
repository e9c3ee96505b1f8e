// The words of the code that runs git: its command lines (arguments, revision
// ranges, moments as git reads them), its return code and GitError. Each
// returns a null Ref (or -1) with an exception set on failure.
#pragma once

#include <Python.h>

#include <initializer_list>

#include "git_utils/binding/helpers.hpp"
#include "git_utils/binding/ref.hpp"

namespace gu {

// `code == 0` (op Py_EQ) or `code != 0` (op Py_NE) for git's return code, as
// an if statement reads it: 1, 0, or -1 with an exception. An exact int is
// read natively; anything else compares through its own methods.
inline int code_compare(PyObject* code, int op) {
    if (PyLong_CheckExact(code)) {
        int overflow = 0;
        const bool zero = PyLong_AsLongAndOverflow(code, &overflow) == 0 && overflow == 0;
        return zero == (op == Py_EQ) ? 1 : 0;
    }
    Ref zero = Ref::steal(PyLong_FromLong(0));
    return zero ? truth(Ref::steal(PyObject_RichCompare(code, zero.get(), op))) : -1;
}

// raise GitError(message), with the class the namespace holds now: -1.
inline int raise_git_error(PyObject* module, Ref message) {
    if (!message) return -1;
    Ref error = call_name(module, Name::GitError, message.get());
    if (!error) return -1;
    if (!PyExceptionInstance_Check(error.get())) {
        PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
        return -1;
    }
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
    return -1;
}

// moment.strftime(...) in the form git reads as local time, to the second.
inline Ref git_moment(PyObject* moment) { return call_method(moment, "strftime", "s", "%Y-%m-%d %H:%M:%S"); }

// f"{head}{value}{tail}"
inline Ref formatted(const char* head, PyObject* value, const char* tail = "") {
    Ref middle = Ref::steal(PyObject_Format(value, nullptr));
    if (!middle) return Ref();
    return Ref::steal(PyUnicode_FromFormat("%s%U%s", head, middle.get(), tail));
}

// f"{base}{dots}{head}": a revision range.
inline Ref revision_range(PyObject* base, const char* dots, PyObject* head) {
    Ref b = Ref::steal(PyObject_Format(base, nullptr));
    Ref h = b ? Ref::steal(PyObject_Format(head, nullptr)) : Ref();
    return h ? Ref::steal(PyUnicode_FromFormat("%U%s%U", b.get(), dots, h.get())) : Ref();
}

// One argument of a git command line: a C text, or an object put in as it is.
struct Arg {
    Arg(const char* s) : text(s) {}
    Arg(PyObject* o) : object(o) {}
    const char* text = nullptr;
    PyObject* object = nullptr;
};

// A new list of the arguments, in order; null when an object is (the call
// that made it failed).
inline Ref arg_list(std::initializer_list<Arg> args) {
    for (const Arg& a : args)
        if (!a.object && !a.text) return Ref();
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(args.size())));
    if (!list) return Ref();
    Py_ssize_t i = 0;
    for (const Arg& a : args) {
        Ref item = a.object ? Ref::borrow(a.object) : text(a.text);
        if (!item) return Ref();
        PyList_SET_ITEM(list.get(), i++, item.release());
    }
    return list;
}

}  // namespace gu
