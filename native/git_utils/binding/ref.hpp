// The one owning handle for PyObject*: every strong reference the binding
// layer holds lives in a Ref, so every path, error paths included, releases
// what it owns.
#pragma once

#include <Python.h>

#include <utility>

#include "git_utils/binding/compat.hpp"

namespace gu {

// Before 3.14 the finalizing interpreter ends a daemon thread that asks for
// the lock by unwinding it (thread_end.hpp), also through this code's frames
// that called into Python (subprocess.run waiting for git, say): without the
// lock, what those frames alone hold is left, as the interpreter leaves what
// its own frames hold. Asked only where a release would free the object: the
// check costs more than the rest of a release.
inline bool may_release() noexcept {
#if PY_VERSION_HEX < 0x030E0000
    return PyGILState_Check() != 0;
#else
    return true;
#endif
}

class Ref {
public:
    Ref() noexcept = default;
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& other) noexcept : p_(other.p_) { other.p_ = nullptr; }
    Ref& operator=(Ref&& other) noexcept {
        if (this != &other) {
            PyObject* old = p_;
            p_ = other.p_;
            other.p_ = nullptr;
            Py_XDECREF(old);
        }
        return *this;
    }
    ~Ref() {
        if (p_ != nullptr && (Py_REFCNT(p_) > 1 || may_release())) Py_DECREF(p_);
    }

    // Takes over a new reference (the result of most API calls; may be null).
    static Ref steal(PyObject* p) noexcept { return Ref(p); }
    // Adds a reference to a borrowed pointer (may be null).
    static Ref borrow(PyObject* p) noexcept {
        Py_XINCREF(p);
        return Ref(p);
    }

    PyObject* get() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    // Gives the reference away (to a "steals" API or as a function result).
    PyObject* release() noexcept { return std::exchange(p_, nullptr); }
    // A new reference for the caller, keeping ours.
    PyObject* newref() const noexcept {
        Py_XINCREF(p_);
        return p_;
    }
    void reset() noexcept { Py_CLEAR(p_); }

private:
    explicit Ref(PyObject* p) noexcept : p_(p) {}
    PyObject* p_ = nullptr;
};

// dict[key] as a strong reference in `out`: 1 found, 0 missing (no
// exception), -1 error. What a dict holds may be replaced by any call into
// Python, and without the global lock by another thread at any time.
inline int dict_get(PyObject* dict, PyObject* key, Ref& out) {
    PyObject* found;
    const int status = PyDict_GetItemRef(dict, key, &found);
    out = Ref::steal(found);
    return status;
}

inline int dict_get(PyObject* dict, const char* key, Ref& out) {
    PyObject* found;
    const int status = PyDict_GetItemStringRef(dict, key, &found);
    out = Ref::steal(found);
    return status;
}

}  // namespace gu
