// How a call finds its collaborators: each is read from the namespace once,
// at the call's start and before anything of the call runs, so a host's
// replacement is used from the next call on. Whether a collaborator is what
// loading bound is asked of it, and only of it: as_loaded().
#pragma once

#include <Python.h>

#include <iterator>
#include <utility>

#include "git_utils/binding/names.hpp"
#include "git_utils/binding/ref.hpp"
#include "git_utils/binding/state.hpp"

namespace gu {

class Collaborator {
public:
    Collaborator(PyObject* module, Name name) : module_(module), name_(name) {
        if (dict_get(PyModule_GetDict(module), state_of(module)->names[index(name)], value_) < 0) PyErr_Clear();
        as_loaded_ = value_ && is_original(state_of(module), name, value_.get());
    }

    // What the namespace held, borrowed from this holder; null, with the
    // NameError Python would raise, when it held nothing (raised at the
    // first use, where Python raises it).
    PyObject* get() {
        if (!value_) value_ = lookup(module_, name_);
        return value_.get();
    }

    // Whether it is what loading bound (a missing name is not).
    bool as_loaded() const { return as_loaded_; }

    // Whether it is, as loaded, the dict loading made, still with one entry
    // per row of a core `table`, each under the row's letter and accepted by
    // take(row, value), which may keep the value. No exception.
    template <class Table, class Take>
    bool holds_table(const Table& table, Take take) const {
        PyObject* mapping = value_.get();
        if (!as_loaded_ || !PyDict_CheckExact(mapping) ||
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

private:
    PyObject* module_;
    Name name_;
    Ref value_;
    bool as_loaded_ = false;
};

}  // namespace gu
