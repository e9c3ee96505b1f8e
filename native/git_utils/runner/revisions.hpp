// The guard the strict queries put in front of every revision they hand to
// git: a name that begins with "--" would reach rev-list, diff or log as an
// option (--output= writes a file, --textconv and --ext-diff run programs),
// so it is refused before anything else happens.
#pragma once

#include <Python.h>

#include <initializer_list>

namespace gu {

// 0 when no str among `revisions` begins with "--" (None and other types
// pass). Otherwise -1, with GitError("revision looks like an option: "
// + repr(revision)) raised for the first such revision; GitError is the one
// the namespace holds now.
int refuse_option_like(PyObject* module, std::initializer_list<PyObject*> revisions);

}  // namespace gu
