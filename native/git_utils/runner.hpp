// The only place where git runs: the lenient runner run_git_command, which
// returns git's (stdout, stderr, returncode), and the strict _git_output,
// which returns stdout or raises GitError.
#pragma once

#include <Python.h>

#include "git_utils/function.hpp"

namespace gu {

extern const FunctionDef kRunGitCommand;
extern const FunctionDef kGitOutput;

// GitError's documentation text.
extern const char* const kGitErrorDoc;

// For the queries: call what the namespace holds under run_git_command or
// _git_output now, with two arguments (the default time-out).
Ref call_run_git_command(PyObject* module, PyObject* repo_root, PyObject* args);
Ref call_git_output(PyObject* module, PyObject* repo_root, PyObject* args);

// stdout, stderr, returncode = value, with the interpreter's unpacking
// errors; false with an exception set.
bool unpack_git_result(PyObject* value, Ref out[3]);

}  // namespace gu
