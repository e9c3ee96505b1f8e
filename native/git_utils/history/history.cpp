// The author statistics read off shortlog's summary; the counting and the
// lookup by time as rev-list answers them.
#include "git_utils/history/history.hpp"

#include "git_utils/binding/helpers.hpp"
#include "git_utils/binding/log_line.hpp"
#include "git_utils/binding/state.hpp"
#include "git_utils/runner/command_line.hpp"
#include "git_utils/runner/revisions.hpp"
#include "git_utils/runner/runner.hpp"

namespace gu {
namespace {

// prefix + moment, for an option git reads a moment from (the TypeError of
// str + for anything but a str).
Ref moment_option(const char* prefix, PyObject* moment) {
    Ref p = text(prefix);
    return p ? Ref::steal(PyUnicode_Concat(p.get(), moment)) : Ref();
}

// ---- author statistics -----------------------------------------------------

// One "count<TAB>name <email>" line into its entry; None for a line to skip.
Ref author_entry(PyObject* module, PyObject* raw_line) {
    Ref line = strip(module, raw_line);
    if (!line) return Ref();
    if (!PyUnicode_Check(line.get())) {
        PyErr_Format(PyExc_TypeError, "strip() gave %.200s, not str", Py_TYPE(line.get())->tp_name);
        return Ref();
    }
    const Py_ssize_t length = PyUnicode_GET_LENGTH(line.get());
    const Py_ssize_t tab = PyUnicode_FindChar(line.get(), '\t', 0, length, 1);
    if (tab == -2) return Ref();
    if (tab < 0) return Ref::borrow(Py_None);
    Ref count_text = Ref::steal(PyUnicode_Substring(line.get(), 0, tab));
    Ref rest = Ref::steal(PyUnicode_Substring(line.get(), tab + 1, length));
    if (!count_text || !rest) return Ref();
    Ref stripped_count = strip(module, count_text.get());
    if (!stripped_count) return Ref();
    Ref count = Ref::steal(PyLong_FromUnicodeObject(stripped_count.get(), 10));
    if (!count) return Ref();
    const Py_ssize_t rest_length = PyUnicode_GET_LENGTH(rest.get());
    const Py_ssize_t lt = PyUnicode_FindChar(rest.get(), '<', 0, rest_length, 1);
    const Py_ssize_t gt = PyUnicode_FindChar(rest.get(), '>', 0, rest_length, 1);
    Ref name, email;
    if (lt >= 0 && gt >= 0) {
        Ref before = Ref::steal(PyUnicode_Substring(rest.get(), 0, lt));
        if (!before) return Ref();
        name = strip(module, before.get());
        Py_ssize_t end = rest_length;
        for (Py_ssize_t i = lt + 1; i < rest_length; ++i) {
            const Py_UCS4 c = PyUnicode_READ_CHAR(rest.get(), i);
            if (c == '<' || c == '>') {
                end = i;
                break;
            }
        }
        email = Ref::steal(PyUnicode_Substring(rest.get(), lt + 1, end));
    } else {
        name = Ref::borrow(rest.get());
        email = text("");
    }
    if (!name || !email) return Ref();
    Ref entry = Ref::steal(PyDict_New());
    if (!entry || PyDict_SetItemString(entry.get(), "name", name.get()) < 0 ||
        PyDict_SetItemString(entry.get(), "email", email.get()) < 0 ||
        PyDict_SetItemString(entry.get(), "commits", count.get()) < 0)
        return Ref();
    return entry;
}

PyObject* get_authors_for_period(PyObject* module, PyObject* const* a) {
    PyObject* repo_root = a[0];
    Ref start = call_name(module, Name::parse_time_spec, a[1]);
    if (!start) return nullptr;
    Ref when = git_moment(start.get());
    Ref since_arg = when ? moment_option("--since=", when.get()) : Ref();
    Ref args = arg_list({"shortlog", since_arg.get(), "-sne"});
    if (!args) return nullptr;
    Ref result = call_run_git_command(module, repo_root, args.get());
    if (!result) return nullptr;
    Ref parts[3];
    if (unpack_git_result(result.get(), parts) < 0) return nullptr;
    PyObject* out = parts[0].get();
    PyObject* err = parts[1].get();
    PyObject* code = parts[2].get();
    const int failed = code_compare(code, Py_NE);
    if (failed < 0) return nullptr;
    if (failed) {
        Ref stripped = strip(module, err);
        if (!stripped ||
            log_line(module, LogLevel::debug, "get_authors_for_period",
                     "get_authors_for_period: git shortlog failed rc=%s stderr=%s", {code, stripped.get()}) < 0)
            return nullptr;
        return PyList_New(0);
    }
    Ref body = strip(module, out);
    Ref newline = text("\n");
    if (!body || !newline) return nullptr;
    // A replaced runner's stdout that is not a str (bytes, say) splits, or
    // fails to, as the object's own split does.
    Ref lines = PyUnicode_CheckExact(body.get()) ? Ref::steal(PyUnicode_Split(body.get(), newline.get(), -1))
                                                 : call_method(body.get(), "split", newline.get());
    if (lines && !PyList_Check(lines.get())) {
        PyErr_Format(PyExc_TypeError, "split() gave %.200s, not a list of str", Py_TYPE(lines.get())->tp_name);
        return nullptr;
    }
    Ref authors = Ref::steal(PyList_New(0));
    if (!lines || !authors) return nullptr;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(lines.get()); ++i) {
        PyObject* line = PyList_GET_ITEM(lines.get(), i);
        if (!PyUnicode_Check(line)) {
            PyErr_Format(PyExc_TypeError, "split() gave a %.200s line, not str", Py_TYPE(line)->tp_name);
            return nullptr;
        }
        if (PyUnicode_GET_LENGTH(line) == 0) continue;
        Ref entry = author_entry(module, line);
        if (!entry || (entry.get() != Py_None && PyList_Append(authors.get(), entry.get()) < 0)) return nullptr;
    }
    return authors.release();
}

// ---- counting and lookup ---------------------------------------------------

// _git_output(...).strip()
Ref strict_output(PyObject* module, PyObject* repo_root, PyObject* args) {
    Ref out = call_git_output(module, repo_root, args);
    return out ? strip(module, out.get()) : Ref();
}

PyObject* count_commits(PyObject* module, PyObject* const* a) {
    if (refuse_option_like(module, {a[1], a[2]}) < 0) return nullptr;
    Ref range = revision_range(a[1], "..", a[2]);
    Ref args = arg_list({"rev-list", "--count", range.get()});
    if (!args) return nullptr;
    Ref stripped = strict_output(module, a[0], args.get());
    const int has_text = truth(stripped);
    if (has_text < 0) return nullptr;
    if (!has_text) return PyLong_FromLong(0);
    return PyNumber_Long(stripped.get());  // int(): str, bytes and bytearray alike
}

PyObject* commit_before(PyObject* module, PyObject* const* a) {
    if (refuse_option_like(module, {a[1]}) < 0) return nullptr;
    Ref when = git_moment(a[2]);
    Ref before = when ? moment_option("--before=", when.get()) : Ref();
    Ref args = arg_list({"rev-list", "-1", before.get(), a[1]});
    if (!args) return nullptr;
    return or_none(strict_output(module, a[0], args.get())).release();
}

}  // namespace

const FunctionDef kDefs[] = {
    {Name::get_authors_for_period, "(repo_root: Path, since: str = \"30d\") -> list[dict[str, Any]]",
     "List the authors of the period since `since` (a time spec), most commits\n"
     "first, as git's shortlog counts them: dicts with \"name\", \"email\" and\n"
     "\"commits\". A refused spec raises ValueError before git runs; a failed,\n"
     "timed-out or missing git gives an empty list (logged at debug level).\n"
     "git reads the log from standard input when that is not a terminal.",
     get_authors_for_period},
    {Name::count_commits, "(repo_root: Path, base: str, head: str) -> int",
     "Count the commits reachable from head and not from base (git rev-list\n"
     "--count base..head). Raises GitError when git fails, and before git runs\n"
     "for a base or head that begins with \"--\".",
     count_commits},
    {Name::commit_before, "(repo_root: Path, ref: str, moment: datetime) -> str | None",
     "Return the full id of the newest commit of ref's history committed at or\n"
     "before moment (written to git as local time, to the second), or None when\n"
     "there is none. Raises GitError when git fails, and before git runs for a\n"
     "ref that begins with \"--\".",
     commit_before},
};

const std::span<const FunctionDef> kHistoryFunctions = kDefs;

}  // namespace gu
