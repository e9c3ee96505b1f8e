// The only place where git runs: the lenient runner run_git_command, which
// returns git's (stdout, stderr, returncode), and the strict _git_output,
// which returns stdout or raises GitError.
#pragma once

#include <Python.h>

#include <span>

#include "core/byte_buffer.hpp"
#include "git_utils/binding/function.hpp"
#include "git_utils/binding/genuine.hpp"

namespace gu {

// run_git_command and _git_output.
extern const std::span<const FunctionDef> kRunnerFunctions;

// GitError's documentation text.
extern const char* const kGitErrorDoc;

// The builder of the spawn's fast path: subprocess.run, Popen and the Popen
// methods run reaches, when they are the standard library's own.
int spawn_guard(PyObject* module, GuardBuilder& guard);

// For the queries: call what the namespace holds under run_git_command or
// _git_output now, with two arguments (the default time-out).
Ref call_run_git_command(PyObject* module, PyObject* repo_root, PyObject* args);
Ref call_git_output(PyObject* module, PyObject* repo_root, PyObject* args);

// What _git_output(repo_root, args) gives, for a query that hands it to a
// parser: while _git_output, run_git_command and the spawn are all as bound
// at load and git exits with 0, stdout stays bytes (line ends normalised,
// not decoded: is_bytes); otherwise `text` is what _git_output returned.
// 0, or -1 with an exception set (GitError among them).
struct GitOutput {
    bool is_bytes = false;
    core::ByteBuffer bytes;
    Ref text;
};
int git_output_for_parser(PyObject* module, PyObject* repo_root, PyObject* args, GitOutput& out);

// stdout, stderr, returncode = value, with the interpreter's unpacking
// errors; 0, or -1 with an exception set.
int unpack_git_result(PyObject* value, Ref out[3]);

}  // namespace gu
