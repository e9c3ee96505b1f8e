// The small pieces every subsystem of the binding layer uses, in one
// spelling each: strs from C text, calls, truth, prefixes of texts, source
// evaluated in the namespace. Each returns a null Ref (or -1) with an
// exception set on failure.
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

// s.strip(), through the interned name.
inline Ref strip(PyObject* module, PyObject* s) {
    return Ref::steal(PyObject_CallMethodNoArgs(s, state_of(module)->str_strip));
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

}  // namespace gu
