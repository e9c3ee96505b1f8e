// The small pieces every subsystem of the binding layer uses, in one
// spelling each: strs from C text, calls, truth, source evaluated in the
// namespace, git's return code, GitError, git's moment format and git's
// argument lists. Each returns a null Ref (or -1) with an exception set on
// failure.
#pragma once

#include <Python.h>

#include <cstring>
#include <initializer_list>
#include <utility>

#include "git_utils/binding/ref.hpp"
#include "git_utils/binding/state.hpp"

namespace gu {

// A new str of the UTF-8 text `s`.
inline Ref text(const char* s) { return Ref::steal(PyUnicode_FromString(s)); }

// o.name(...), with `format` and `args` as PyObject_CallMethod reads them.
template <class... Args>
Ref call_method(PyObject* o, const char* name, const char* format = nullptr, Args... args) {
    return Ref::steal(PyObject_CallMethod(o, name, format, args...));
}

// o.name(arg) with `arg` as the one argument, whatever it is: the "O"
// format of PyObject_CallMethod would spread a tuple into several.
inline Ref call_method(PyObject* o, const char* name, PyObject* arg) {
    Ref method = text(name);
    return method ? Ref::steal(PyObject_CallMethodOneArg(o, method.get(), arg)) : Ref();
}

// f(*args). The slot before the arguments lets a bound method's call reuse
// the array for its self.
template <class... Args>
Ref call(PyObject* f, Args... args) {
    PyObject* argv[] = {nullptr, args...};
    return Ref::steal(PyObject_Vectorcall(f, argv + 1, sizeof...(Args) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// What the namespace holds under `name` now, called with `args`.
template <class... Args>
Ref call_name(PyObject* module, Name name, Args... args) {
    Ref f = lookup(module, name);
    return f ? call(f.get(), args...) : Ref();
}

// bool(value), as an if statement reads it: 1, 0, or -1 with an exception
// (a null `value` is the failed call that made it).
inline int truth(const Ref& value) { return value ? PyObject_IsTrue(value.get()) : -1; }

// `value or None`: null only when `value` is, or its truth fails.
inline Ref or_none(Ref value) {
    const int t = truth(value);
    return t < 0 ? Ref() : t ? std::move(value) : Ref::borrow(Py_None);
}

// Prefixes of texts: an exact str natively over code points, anything else
// through its own methods, as Python code would call them.

// strlen as a str length.
inline Py_ssize_t length_of(const char* s) { return static_cast<Py_ssize_t>(std::strlen(s)); }

// Whether the code points [at, end) of a str begin with the ASCII `prefix`.
inline bool has_prefix_at(int kind, const void* data, Py_ssize_t at, Py_ssize_t end, const char* prefix) {
    for (; *prefix != '\0'; ++prefix, ++at)
        if (at >= end || PyUnicode_READ(kind, data, at) != static_cast<Py_UCS4>(static_cast<unsigned char>(*prefix)))
            return false;
    return true;
}

// bool(s.startswith(prefix)): 1, 0, or -1 with an exception.
inline int starts_with(PyObject* s, const char* prefix) {
    if (PyUnicode_CheckExact(s))
        return has_prefix_at(PyUnicode_KIND(s), PyUnicode_DATA(s), 0, PyUnicode_GET_LENGTH(s), prefix) ? 1 : 0;
    return truth(call_method(s, "startswith", "s", prefix));
}

// s[len(prefix):]
inline Ref cut(PyObject* s, const char* prefix) {
    if (PyUnicode_CheckExact(s)) return Ref::steal(PyUnicode_Substring(s, length_of(prefix), PyUnicode_GET_LENGTH(s)));
    Ref from = Ref::steal(PyLong_FromSsize_t(length_of(prefix)));
    if (!from) return Ref();
    Ref slice = Ref::steal(PySlice_New(from.get(), nullptr, nullptr));
    if (!slice) return Ref();
    return Ref::steal(PyObject_GetItem(s, slice.get()));
}

// The value of the Python expression `expression` in a copy of the
// namespace as it stands now.
inline Ref evaluate(PyObject* module, const char* expression) {
    Ref globals = namespace_copy(module);
    if (!globals) return Ref();
    return Ref::steal(PyRun_String(expression, Py_eval_input, globals.get(), globals.get()));
}

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
