// The module's functions are objects of a small native type that behaves
// like a Python function: name, qualified name, module, documentation,
// defaults, keyword defaults and annotations as real objects, a signature for
// inspect and help(), descriptor binding, a __dict__, pickling by name, and
// argument binding with the interpreter's own error texts.
#pragma once

#include <Python.h>

#include <span>

#include "git_utils/binding/names.hpp"
#include "git_utils/binding/ref.hpp"

namespace gu {

// The body of a function: `args` holds one borrowed object per parameter, in
// declaration order, defaults already filled in. Returns a new reference or
// null with an exception set.
using Impl = PyObject* (*)(PyObject* module, PyObject* const* args);

struct FunctionDef {
    Name name;
    // The parameter list and result annotation as Python source, e.g.
    // "(repo_root: Path, args: list[str], timeout: int = 30) -> tuple[str, str, int]".
    // Loading evaluates it in the namespace as it stands at that point, so
    // defaults and annotations are the interpreter's own objects.
    const char* signature;
    const char* doc;
    Impl impl;
};

// The most parameters a function of the module takes.
inline constexpr Py_ssize_t kMaxParams = 8;

// Creates the native function type for `module` (a heap type bound to it).
Ref create_function_type(PyObject* module);

// Creates the function `def` describes, bound to `module`.
Ref make_function(PyObject* module, const FunctionDef& def);

}  // namespace gu
