// How a call finds its collaborators: each is read from the namespace when
// the call first needs it, once per call, so a host's replacement is used
// from the next call on and a name the call never needs is never looked up.
#pragma once

#include <Python.h>

#include <iterator>
#include <utility>

#include "git_utils/binding/names.hpp"
#include "git_utils/binding/ref.hpp"
#include "git_utils/binding/state.hpp"

namespace gu {

// What the namespace holds under `name` now, or null (without an exception)
// when it holds nothing there.
inline Ref peek(PyObject* module, Name name) {
    Ref found;
    if (dict_get(PyModule_GetDict(module), state_of(module)->names[index(name)], found) < 0) PyErr_Clear();
    return found;
}

// Whether the namespace still holds what loading bound under `name`.
inline bool unchanged(PyObject* module, Name name) {
    return is_original(state_of(module), name, peek(module, name).get());
}

// Whether the namespace still holds under `name` the exact dict loading made,
// with one entry per row of a core `table`, each under the row's letter and
// accepted by take(row, value), which may keep the value. No exception.
template <class Table, class Take>
bool mapping_matches(PyObject* module, Name name, const Table& table, Take take) {
    Ref held = peek(module, name);
    PyObject* mapping = held.get();
    if (!is_original(state_of(module), name, mapping) || !PyDict_CheckExact(mapping) ||
        PyDict_GET_SIZE(mapping) != static_cast<Py_ssize_t>(std::size(table)))
        return false;
    for (const auto& row : table) {
        const char letter[] = {row.letter, '\0'};
        Ref value;
        if (dict_get(mapping, letter, value) <= 0) {
            PyErr_Clear();
            return false;
        }
        if (!take(row, std::move(value))) return false;
    }
    return true;
}

// A collaborator read at its first use in a call and kept for the rest of it.
class Collaborator {
public:
    Collaborator(PyObject* module, Name name) : module_(module), name_(name) {}

    // Borrowed from this holder, or null with the NameError Python would raise.
    PyObject* get() {
        if (!value_) value_ = lookup(module_, name_);
        return value_.get();
    }
    // Whether it is (or, not read yet, would be) what loading bound; a
    // missing name is not, and raises nothing until the call uses it.
    bool is_original() {
        if (value_) return gu::is_original(state_of(module_), name_, value_.get());
        Ref v = peek(module_, name_);
        return v && gu::is_original(state_of(module_), name_, v.get());
    }

private:
    PyObject* module_;
    Name name_;
    Ref value_;
};

}  // namespace gu
