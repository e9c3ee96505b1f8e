// The repository layout: finding the root by its `.git` entry, the short
// and directory forms of branch names, the wiki paths below the root, and
// the lenient queries about branches and revisions.
#pragma once

#include <Python.h>

#include "git_utils/function.hpp"
#include "git_utils/genuine.hpp"

namespace gu {

// The builders of the path's fast paths: pathlib's concrete path class with
// its methods (joins and the .git test), and what its stat() reaches (the
// .git test's stat), when they are the standard library's own.
int path_guard(PyObject* module, GuardBuilder& guard);
int path_stat_guard(PyObject* module, GuardBuilder& guard);

}  // namespace gu
