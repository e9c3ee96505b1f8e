// Finding the repository root: the nearest directory at or above a start
// that holds a `.git` entry, natively while pathlib's class and what its
// stat() reaches are genuine.
#pragma once

#include <Python.h>

#include <span>

#include "git_utils/binding/function.hpp"
#include "git_utils/binding/genuine.hpp"

namespace gu {

// find_git_root and find_repo_root.
extern const std::span<const FunctionDef> kDiscoveryFunctions;

// The builders of the path's fast paths: pathlib's concrete path class with
// its methods (joins and the .git test), and what its stat() reaches (the
// .git test's stat), when they are the standard library's own.
int path_guard(PyObject* module, GuardBuilder& guard);
int path_stat_guard(PyObject* module, GuardBuilder& guard);

}  // namespace gu
