// The change queries: each builds git's argument list, runs it through the
// strict runner found in the namespace and returns what the parser found
// there makes of the output. diff_line_spans runs git once per batch of
// paths and merges the answers.

#include "git_utils/binding/collaborators.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/changes/change_queries.hpp"
#include "git_utils/changes/file_changes.hpp"
#include "git_utils/changes/line_spans.hpp"
#include "git_utils/changes/scan_text.hpp"
#include "git_utils/runner/command_line.hpp"
#include "git_utils/runner/revisions.hpp"
#include "git_utils/runner/runner.hpp"

namespace gu {
namespace {

// list.extend(items), item by item as a for loop appends them.
int extend(PyObject* list, PyObject* items) {
    Ref iterator = Ref::steal(PyObject_GetIter(items));
    if (!iterator) return -1;
    while (Ref item = Ref::steal(PyIter_Next(iterator.get())))
        if (PyList_Append(list, item.get()) < 0) return -1;
    return PyErr_Occurred() ? -1 : 0;
}

// ---- git's command lines ---------------------------------------------------

Ref diff_command(PyObject* base, PyObject* head) {
    Ref range = revision_range(base, "...", head);
    return arg_list({"diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", range.get()});
}

Ref log_command(PyObject* since, PyObject* ref, PyObject* max_commits) {
    Ref moment = git_moment(since);
    Ref since_arg = moment ? formatted("--since=", moment.get()) : Ref();
    Ref max_arg = since_arg ? formatted("--max-count=", max_commits) : Ref();
    Ref args = arg_list({"log", since_arg.get(), max_arg.get(), "--no-show-signature", "--format=%x1e%ct", "--raw",
                         "--numstat", "-M", "-z"});
    if (args && ref != Py_None && PyList_Append(args.get(), ref) < 0) return Ref();
    return args;
}

// The arguments every batch of diff_line_spans shares.
Ref patch_command(PyObject* module, PyObject* base, PyObject* head, PyObject* merge_base, PyObject* diff_filter) {
    Ref command = arg_list({"-c", "core.quotepath=off", "--literal-pathspecs", "diff"});
    Ref options = command ? lookup(module, Name::_PATCH_OPTIONS) : Ref();
    if (!options || extend(command.get(), options.get()) < 0) return Ref();
    Ref filter = formatted("--diff-filter=", diff_filter);
    if (!filter || PyList_Append(command.get(), filter.get()) < 0) return Ref();
    const int three_dot = PyObject_IsTrue(merge_base);
    if (three_dot < 0) return Ref();
    Ref range = three_dot ? revision_range(base, "...", head) : Ref();
    if (three_dot ? !range || PyList_Append(command.get(), range.get()) < 0
                  : PyList_Append(command.get(), base) < 0 || PyList_Append(command.get(), head) < 0)
        return Ref();
    return command;
}

// [*command, "--", *batch] for a batch with paths, else a copy of command.
Ref batch_command(PyObject* command, PyObject* batch) {
    Ref arguments = Ref::steal(PyList_GetSlice(command, 0, PY_SSIZE_T_MAX));
    if (!arguments) return Ref();
    const int has_paths = PyObject_IsTrue(batch);
    if (has_paths <= 0) return has_paths < 0 ? Ref() : std::move(arguments);
    Ref separator = text("--");
    if (!separator || PyList_Append(arguments.get(), separator.get()) < 0 || extend(arguments.get(), batch) < 0)
        return Ref();
    return arguments;
}

// ---- the queries -----------------------------------------------------------

// parser(_git_output(repo_root, args)), both found in the namespace. While
// both are the ones bound at load, git's stdout goes to the parser as the
// bytes it printed, never decoded as a whole.
using FromGit = Ref (*)(PyObject* module, std::string_view output);

Ref run_and_parse(PyObject* module, PyObject* repo_root, PyObject* args, Name parser, FromGit from_git) {
    GitOutput output;
    if (git_output_for_parser(module, repo_root, args, output) < 0) return Ref();
    Ref parse = lookup(module, parser);
    if (!parse) return Ref();
    if (output.is_bytes) {
        if (is_original(state_of(module), parser, parse.get())) return from_git(module, output.bytes.view());
        const GitText bytes(output.bytes.view());
        output.text = bytes.str(bytes.view());
        if (!output.text) return Ref();
    }
    return call(parse.get(), output.text.get());
}

PyObject* diff_file_changes(PyObject* module, PyObject* const* a) {
    if (refuse_option_like(module, {a[1], a[2]}) < 0) return nullptr;
    Ref args = diff_command(a[1], a[2]);
    if (!args) return nullptr;
    return run_and_parse(module, a[0], args.get(), Name::parse_file_changes, parse_file_changes_from_git).release();
}

PyObject* log_commit_changes(PyObject* module, PyObject* const* a) {
    if (refuse_option_like(module, {a[2]}) < 0) return nullptr;
    Ref args = log_command(a[1], a[2], a[3]);
    if (!args) return nullptr;
    return run_and_parse(module, a[0], args.get(), Name::parse_commit_changes, parse_commit_changes_from_git).release();
}

PyObject* diff_line_spans(PyObject* module, PyObject* const* a) {
    if (refuse_option_like(module, {a[1], a[2]}) < 0) return nullptr;
    PyObject* repo_root = a[0];
    PyObject* paths = a[4];
    Ref command = patch_command(module, a[1], a[2], a[3], a[5]);
    if (!command) return nullptr;
    Ref result = Ref::steal(PyDict_New());
    if (!result) return nullptr;
    const int has_paths = PyObject_IsTrue(paths);
    if (has_paths < 0) return nullptr;
    Ref batches;
    if (has_paths) {
        batches = call_name(module, Name::_path_batches, paths);
    } else {
        batches = Ref::steal(Py_BuildValue("[[]]"));
    }
    if (!batches) return nullptr;
    Ref iterator = Ref::steal(PyObject_GetIter(batches.get()));
    if (!iterator) return nullptr;
    while (Ref batch = Ref::steal(PyIter_Next(iterator.get()))) {
        Ref arguments = batch_command(command.get(), batch.get());
        if (!arguments) return nullptr;
        Ref spans =
            run_and_parse(module, repo_root, arguments.get(), Name::parse_line_spans, parse_line_spans_from_git);
        if (!spans) return nullptr;
        // result.update(spans): a later batch's list replaces an earlier one's
        const int merged = PyDict_Check(spans.get()) ? PyDict_Update(result.get(), spans.get())
                                                     : (call_method(result.get(), "update", spans.get()) ? 0 : -1);
        if (merged < 0) return nullptr;
    }
    return PyErr_Occurred() ? nullptr : result.release();
}

// Whether length + 1 more characters pass the limit: natively for an int
// limit, through the objects' comparison for anything else.
int exceeds(PyObject* limit, Py_ssize_t total) {
    if (PyLong_CheckExact(limit)) {
        int overflow = 0;
        const long long max = PyLong_AsLongLongAndOverflow(limit, &overflow);
        if (overflow) return overflow < 0 ? 1 : 0;
        return static_cast<long long>(total) > max ? 1 : 0;
    }
    Ref t = Ref::steal(PyLong_FromSsize_t(total));
    return t ? truth(Ref::steal(PyObject_RichCompare(t.get(), limit, Py_GT))) : -1;
}

PyObject* path_batches(PyObject* module, PyObject* const* a) {
    Ref batches = Ref::steal(Py_BuildValue("[[]]"));
    if (!batches) return nullptr;
    PyObject* batch = PyList_GET_ITEM(batches.get(), 0);
    Py_ssize_t length = 0;
    Collaborator limit(module, Name::_MAX_PATHSPEC_CHARS);
    Ref iterator = Ref::steal(PyObject_GetIter(a[0]));
    if (!iterator) return nullptr;
    while (Ref path = Ref::steal(PyIter_Next(iterator.get()))) {
        const Py_ssize_t n = PyObject_Length(path.get());
        if (n < 0) return nullptr;
        if (PyList_GET_SIZE(batch) > 0) {
            if (limit.get() == nullptr) return nullptr;
            const int over = exceeds(limit.get(), length + n + 1);
            if (over < 0) return nullptr;
            if (over) {
                Ref next = Ref::steal(PyList_New(0));
                if (!next || PyList_Append(batches.get(), next.get()) < 0) return nullptr;
                batch = next.get();  // owned by batches
                length = 0;
            }
        }
        if (PyList_Append(batch, path.get()) < 0) return nullptr;
        length += n + 1;
    }
    return PyErr_Occurred() ? nullptr : batches.release();
}

}  // namespace

const FunctionDef kDefs[] = {
    {Name::diff_file_changes, "(repo_root: Path, base: str, head: str) -> list[FileChange]",
     "List the files that head changed since it left base (git diff base...head,\n"
     "against their merge base), as FileChange records in git's order, with\n"
     "renames detected. Raises GitError when git fails, and before git runs for\n"
     "a base or head that begins with \"--\".",
     diff_file_changes},
    {Name::log_commit_changes,
     "(repo_root: Path, *, since: datetime, ref: str | None, max_commits: int) -> list[CommitChanges]",
     "List the commits of ref's history (HEAD's when ref is None) made since\n"
     "the local moment since, at most max_commits of them, newest first, as\n"
     "CommitChanges records with the files each changed (none for a merge).\n"
     "All three are keyword-only and required. Raises GitError when git fails,\n"
     "and before git runs for a ref that begins with \"--\".",
     log_commit_changes},
    {Name::diff_line_spans,
     "(repo_root: Path, base: str, head: str, *, merge_base: bool, paths: Sequence[str] = (), "
     "diff_filter: str = \"MR\") -> dict[str, list[LineSpan]]",
     "Map each file a diff changed to the LineSpan records of its newer side.\n\n"
     "merge_base (keyword-only, required) compares head with the point where it\n"
     "left base (base...head) rather than with base itself. paths, when given,\n"
     "limits the diff to those literal paths; a long list runs git once per\n"
     "batch of paths that fits on a command line, a later batch's answer for a\n"
     "path replacing an earlier one. diff_filter names the kinds of change to\n"
     "read (git's --diff-filter letters; modified and renamed by default).\n"
     "Raises GitError when any git run fails, and before git runs for a base or\n"
     "head that begins with \"--\".",
     diff_line_spans},
    {Name::_path_batches, "(paths: Sequence[str]) -> list[list[str]]",
     "Cut paths, in order, into batches whose lengths (one extra character per\n"
     "path) add up to at most _MAX_PATHSPEC_CHARS; a longer path makes a batch\n"
     "of its own. No paths give one empty batch.",
     path_batches},
};

const std::span<const FunctionDef> kChangeQueryFunctions = kDefs;

}  // namespace gu
