// Whether the standard-library objects a native path stands in for are
// still the genuine ones. Loading decides what is genuine (a function belongs
// to the module whose namespace is its globals, wherever its code was read
// from, a file or the interpreter's frozen modules; a wrapper copies names,
// not globals) and records it as a Guard; each call then only compares
// pointers against it.
#pragma once

#include <Python.h>

#include <array>
#include <span>

#include "git_utils/binding/ref.hpp"

namespace gu {

// What one native path relies on, as loading found it. `subject` is the
// object the path stands in for (subprocess.run, a class, datetime.now);
// null: not genuine at load, and the path never runs. `entries` is a flat
// tuple of (dict, key, value) triples: dict[key] must still be value;
// `missing`, of (dict, key) pairs: the key must still be missing. `dicts` is a flat tuple of (dict,
// snapshot) pairs: the dict (a class's) must still hold the snapshot's keys
// and values, in order, and nothing else. `impl`, for a built-in subject: the
// C function that must still run behind it (a clock double swaps it in place).
struct Guard {
    PyObject* subject;
    PyObject* entries;
    PyObject* missing;
    PyObject* dicts;
    PyCFunction impl;
};

// Pointer comparisons only: no attribute lookup, no call into Python code.
bool guard_holds(const Guard& guard);

// The objects a guard owns.
inline std::array<PyObject**, 4> owned(Guard& guard) {
    return {&guard.subject, &guard.entries, &guard.missing, &guard.dicts};
}

void clear_guard(Guard& guard);

// Builds a guard while loading. A check that finds something foreign marks
// the guard not genuine; an error of the interpreter is returned as -1.
class GuardBuilder {
public:
    GuardBuilder();
    // What the path stands in for; a guard without one is not genuine.
    void subject(PyObject* object) { subject_ = Ref::borrow(object); }
    // The built-in subject must keep running `impl`.
    void runs(PyCFunction impl) { impl_ = impl; }
    // dict[key] must stay `value`; `value` null means "whatever dict[key] is now".
    void entry(PyObject* dict, const char* key, PyObject* value = nullptr);
    // The same for an entry of a class's own dict.
    void entry_in_class(PyObject* type, const char* key, PyObject* value);
    // The class's own dict must stay without `key`.
    void absent_in_class(PyObject* type, const char* key);
    // The class's own dict must keep every entry it has now.
    void class_dict(PyObject* type);
    // `dict` (an instance's) must stay empty.
    void empty_dict(PyObject* dict);
    // The class (and each base up to object) must be genuine: every function
    // and wrapped function in its dict defined in one of `modules` (a tuple
    // of module namespaces), no other callable but classes and built-ins.
    void genuine_class(PyObject* type, PyObject* modules);
    // `f` must be a function defined in one of `modules`.
    void genuine_function(PyObject* f, PyObject* modules);
    // `type` must have each of `names` now (found along its MRO).
    void has_attributes(PyObject* type, std::span<const char* const> names);
    void reject() { genuine_ = false; }
    // An error of the interpreter is pending.
    void fail() { failed_ = true; }
    bool ok() const { return !failed_; }
    // Moves the result into `out`, in place of what it held: an empty guard
    // when anything was foreign.
    int finish(Guard& out);

private:
    bool failed_ = false;
    bool genuine_ = true;
    Ref subject_;
    Ref entries_;
    Ref missing_;
    Ref dicts_;
    PyCFunction impl_ = nullptr;
};

// The dict behind a class, what its attribute lookups search (a new
// reference).
Ref class_dict_of(PyObject* type);

// The namespaces (dicts) of module `name` and of its submodules now loaded
// (a package such as pathlib spreads over several), as a tuple.
Ref module_namespaces(const char* name);

// Whether `f` is a function defined in one of `modules` (its globals are one
// of those namespaces): 1 or 0.
int defined_in(PyObject* f, PyObject* modules);

}  // namespace gu
