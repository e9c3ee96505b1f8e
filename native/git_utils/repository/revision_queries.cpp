#include "git_utils/repository/revision_queries.hpp"

#include <utility>

#include "git_utils/binding/helpers.hpp"
#include "git_utils/binding/state.hpp"
#include "git_utils/runner/command_line.hpp"
#include "git_utils/runner/runner.hpp"

namespace gu {
namespace {

struct GitResult {
    Ref out;
    Ref code;
};

// stdout, _, returncode = run_git_command(repo_root, args)
int run_lenient(PyObject* module, PyObject* repo_root, Ref args, GitResult& result) {
    if (!args) return -1;
    Ref triple = call_run_git_command(module, repo_root, args.get());
    Ref parts[3];
    if (!triple || unpack_git_result(triple.get(), parts) < 0) return -1;
    result.out = std::move(parts[0]);
    result.code = std::move(parts[2]);
    return 0;
}

// bool(returncode == 0)
int succeeded(PyObject* code) { return code_compare(code, Py_EQ); }

// The stripped stdout when returncode == 0 and it is not empty; else None.
// With `strip_first` the output is stripped before the code is looked at
// (`out = stdout.strip(); if returncode == 0 and out`), else only once the
// code says git succeeded (`if returncode == 0 and stdout.strip()`).
Ref lenient_output(PyObject* module, GitResult& result, bool strip_first) {
    PyObject* strip = state_of(module)->str_strip;
    Ref out;
    if (strip_first && !(out = Ref::steal(PyObject_CallMethodNoArgs(result.out.get(), strip)))) return Ref();
    const int ok = succeeded(result.code.get());
    if (ok < 0) return Ref();
    if (!ok) return Ref::borrow(Py_None);
    return or_none(out ? std::move(out) : Ref::steal(PyObject_CallMethodNoArgs(result.out.get(), strip)));
}

PyObject* resolve_display_branch(PyObject* module, PyObject* const* a) {
    GitResult result;
    if (run_lenient(module, a[0], arg_list({"branch", "--show-current"}), result) < 0) return nullptr;
    return lenient_output(module, result, false).release();
}

PyObject* get_head_commit(PyObject* module, PyObject* const* a) {
    const int short_form = PyObject_IsTrue(a[1]);
    if (short_form < 0) return nullptr;
    GitResult result;
    Ref args = short_form ? arg_list({"rev-parse", "--short", "HEAD"}) : arg_list({"rev-parse", "HEAD"});
    if (run_lenient(module, a[0], std::move(args), result) < 0) return nullptr;
    return lenient_output(module, result, true).release();
}

PyObject* get_default_branch(PyObject* module, PyObject* const* a) {
    constexpr const char* kRemotePrefix = "refs/remotes/origin/";
    GitResult result;
    if (run_lenient(module, a[0], arg_list({"symbolic-ref", "refs/remotes/origin/HEAD"}), result) < 0) return nullptr;
    Ref remote_head = lenient_output(module, result, false);
    if (!remote_head) return nullptr;
    if (remote_head.get() != Py_None) {
        const int prefixed = starts_with(remote_head.get(), kRemotePrefix);
        if (prefixed < 0) return nullptr;
        return prefixed ? cut(remote_head.get(), kRemotePrefix).release() : remote_head.release();
    }
    for (const char* candidate : {"main", "master"}) {
        if (run_lenient(module, a[0], arg_list({"rev-parse", "--verify", candidate}), result) < 0) return nullptr;
        const int ok = succeeded(result.code.get());
        if (ok < 0) return nullptr;
        if (ok) return PyUnicode_FromString(candidate);
    }
    return PyUnicode_FromString("main");
}

PyObject* branch_exists(PyObject* module, PyObject* const* a) {
    PyObject* repo_root = a[0];
    PyObject* branch = a[1];
    GitResult result;
    if (run_lenient(module, repo_root, arg_list({"rev-parse", "--verify", branch}), result) < 0) return nullptr;
    int ok = succeeded(result.code.get());
    if (ok < 0) return nullptr;
    if (ok) Py_RETURN_TRUE;
    const int remote = starts_with(branch, "origin/");
    if (remote < 0) return nullptr;
    if (!remote) {
        Ref spelled = formatted("origin/", branch, "");
        if (!spelled) return nullptr;
        if (run_lenient(module, repo_root, arg_list({"rev-parse", "--verify", spelled.get()}), result) < 0)
            return nullptr;
        ok = succeeded(result.code.get());
        if (ok < 0) return nullptr;
        if (ok) Py_RETURN_TRUE;
    }
    Py_RETURN_FALSE;
}

PyObject* resolve_commit(PyObject* module, PyObject* const* a) {
    PyObject* name = a[1];
    const int given = PyObject_IsTrue(name);
    if (given < 0) return nullptr;
    if (!given) Py_RETURN_NONE;
    // A leading "-" would reach git as an option; no branch can start with it.
    const int option_like = starts_with(name, "-");
    if (option_like < 0) return nullptr;
    if (option_like) Py_RETURN_NONE;
    Ref revision = formatted("", name, "^{commit}");
    if (!revision) return nullptr;
    GitResult result;
    if (run_lenient(module, a[0], arg_list({"rev-parse", "--verify", "--quiet", revision.get()}), result) < 0)
        return nullptr;
    return lenient_output(module, result, true).release();
}

}  // namespace

const FunctionDef kDefs[] = {
    {Name::resolve_display_branch, "(repo_root: Path) -> str | None",
     "Return the name of the checked-out branch (git branch --show-current),\n"
     "or None for a detached HEAD or when git fails.",
     resolve_display_branch},
    {Name::get_head_commit, "(repo_root: Path, short: bool = True) -> str | None",
     "Return the commit id HEAD points at, abbreviated when short, or None\n"
     "when git fails (for instance in a repository without commits).",
     get_head_commit},
    {Name::get_default_branch, "(repo_root: Path) -> str",
     "Return the repository's default branch; never None.\n\n"
     "The target of refs/remotes/origin/HEAD without its \"refs/remotes/origin/\"\n"
     "prefix when that ref exists; else \"main\" when git resolves main, else\n"
     "\"master\" when it resolves master; else \"main\".",
     get_default_branch},
    {Name::branch_exists, "(repo_root: Path, branch: str) -> bool",
     "Return whether git resolves branch (rev-parse --verify), or, for a name\n"
     "not starting with \"origin/\", origin/ followed by it. Tags, commit ids and\n"
     "other revisions count too. False when git fails.",
     branch_exists},
    {Name::resolve_commit, "(repo_root: Path, name: str) -> str | None",
     "Return the full id of the commit that name denotes (annotated tags are\n"
     "peeled), or None when it denotes none or git fails. An empty name and one\n"
     "that starts with \"-\" give None without running git.",
     resolve_commit},
};

const std::span<const FunctionDef> kRevisionQueryFunctions = kDefs;

}  // namespace gu
