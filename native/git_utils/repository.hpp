// The repository layout: finding the root by its `.git` entry, the short
// and directory forms of branch names, the wiki paths below the root, and
// the lenient queries about branches and revisions.
#pragma once

#include <Python.h>

#include "git_utils/function.hpp"

namespace gu {

// At load: pathlib's concrete path class, its methods and what its exists()
// reaches for the stat, as the originals when they are the standard library's.
int record_discovery_originals(PyObject* module);

}  // namespace gu
