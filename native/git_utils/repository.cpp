#include "git_utils/repository.hpp"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <utility>

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include "git_utils/genuine.hpp"
#include "git_utils/helpers.hpp"
#include "git_utils/runner.hpp"
#include "git_utils/state.hpp"
#include "git_utils/unlocked.hpp"

namespace gu {
namespace {

// The longest directory name sanitize_branch_name gives, in code points.
constexpr Py_ssize_t kMaxDirectoryName = 100;

// The ref prefixes normalize_branch_name cuts, in the order of one pass.
constexpr const char* kRefPrefixes[] = {"refs/heads/", "refs/remotes/", "remotes/", "origin/"};

Py_ssize_t length_of(const char* s) { return static_cast<Py_ssize_t>(std::strlen(s)); }

// ---------------------------------------------------------------------------
// Text helpers: exact str natively over code points, anything else through
// its own methods, as Python code would call them.

// Whether the code points [at, end) of a str begin with the ASCII `prefix`.
bool has_prefix_at(int kind, const void* data, Py_ssize_t at, Py_ssize_t end, const char* prefix) {
    for (; *prefix != '\0'; ++prefix, ++at)
        if (at >= end || PyUnicode_READ(kind, data, at) != static_cast<Py_UCS4>(static_cast<unsigned char>(*prefix)))
            return false;
    return true;
}

// bool(s.startswith(prefix)): 1, 0, or -1 with an exception.
int starts_with(PyObject* s, const char* prefix) {
    if (PyUnicode_CheckExact(s))
        return has_prefix_at(PyUnicode_KIND(s), PyUnicode_DATA(s), 0, PyUnicode_GET_LENGTH(s), prefix) ? 1 : 0;
    return truth(call_method(s, "startswith", "s", prefix));
}

// s[len(prefix):]
Ref cut(PyObject* s, const char* prefix) {
    if (PyUnicode_CheckExact(s)) return Ref::steal(PyUnicode_Substring(s, length_of(prefix), PyUnicode_GET_LENGTH(s)));
    Ref from = Ref::steal(PyLong_FromSsize_t(length_of(prefix)));
    if (!from) return Ref();
    Ref slice = Ref::steal(PySlice_New(from.get(), nullptr, nullptr));
    if (!slice) return Ref();
    return Ref::steal(PyObject_GetItem(s, slice.get()));
}

// normalize_branch_name of an exact str: strip white space as str.strip()
// does, then cut the ref prefixes in passes until a pass changes nothing.
Ref normalize_text(PyObject* name) {
    const Py_ssize_t length = PyUnicode_GET_LENGTH(name);
    const int kind = PyUnicode_KIND(name);
    const void* data = PyUnicode_DATA(name);
    Py_ssize_t start = 0;
    Py_ssize_t end = length;
    while (start < end && Py_UNICODE_ISSPACE(PyUnicode_READ(kind, data, start))) ++start;
    while (end > start && Py_UNICODE_ISSPACE(PyUnicode_READ(kind, data, end - 1))) --end;
    for (bool changed = true; changed;) {
        changed = false;
        for (const char* prefix : kRefPrefixes) {
            if (has_prefix_at(kind, data, start, end, prefix)) {
                start += length_of(prefix);
                changed = true;
            }
        }
    }
    if (start == end) return Ref::borrow(Py_None);
    return Ref::steal(PyUnicode_Substring(name, start, end));
}

// The same steps through the object's own methods, for anything but an
// exact str.
Ref normalize_object(PyObject* name) {
    Ref current = call_method(name, "strip");
    if (!current) return Ref();
    for (bool changed = true; changed;) {
        changed = false;
        for (const char* prefix : kRefPrefixes) {
            const int found = starts_with(current.get(), prefix);
            if (found < 0) return Ref();
            if (found) {
                current = cut(current.get(), prefix);
                if (!current) return Ref();
                changed = true;
            }
        }
    }
    return or_none(std::move(current));
}

bool kept_in_directory_name(Py_UCS4 c) { return Py_UNICODE_ISALNUM(c) || c == '-' || c == '_' || c == '.'; }

// The directory name of an exact str: with `expand_separators` every "/"
// and "\" first becomes "__"; then letters, digits and "-_." stay and every
// other code point becomes "_"; the first 100 code points, or "default".
Ref sanitize_text(PyObject* s, bool expand_separators) {
    Py_UCS4 out[kMaxDirectoryName];
    Py_ssize_t n = 0;
    const Py_ssize_t length = PyUnicode_GET_LENGTH(s);
    const int kind = PyUnicode_KIND(s);
    const void* data = PyUnicode_DATA(s);
    for (Py_ssize_t i = 0; i < length && n < kMaxDirectoryName; ++i) {
        const Py_UCS4 c = PyUnicode_READ(kind, data, i);
        if (expand_separators && (c == '/' || c == '\\')) {
            out[n++] = '_';
            if (n < kMaxDirectoryName) out[n++] = '_';
        } else {
            out[n++] = kept_in_directory_name(c) ? c : '_';
        }
    }
    if (n == 0) return text("default");
    return Ref::steal(PyUnicode_FromKindAndData(PyUnicode_4BYTE_KIND, out, n));
}

// The same steps through the object's own methods: replace, iteration,
// isalnum, "".join and slicing.
Ref sanitize_object(PyObject* branch) {
    Ref safe = call_method(branch, "replace", "ss", "/", "__");
    if (!safe) return Ref();
    safe = call_method(safe.get(), "replace", "ss", "\\", "__");
    if (!safe) return Ref();
    if (PyUnicode_CheckExact(safe.get())) return sanitize_text(safe.get(), false);

    Ref keep = text("-_.");
    Ref underscore = text("_");
    Ref pieces = Ref::steal(PyList_New(0));
    Ref iter = Ref::steal(PyObject_GetIter(safe.get()));
    if (!keep || !underscore || !pieces || !iter) return Ref();
    while (Ref c = Ref::steal(PyIter_Next(iter.get()))) {
        Ref alnum = call_method(c.get(), "isalnum");
        if (!alnum) return Ref();
        int kept = PyObject_IsTrue(alnum.get());
        if (kept == 0) kept = PySequence_Contains(keep.get(), c.get());
        if (kept < 0 || PyList_Append(pieces.get(), kept ? c.get() : underscore.get()) < 0) return Ref();
    }
    if (PyErr_Occurred()) return Ref();
    Ref empty = text("");
    if (!empty) return Ref();
    Ref joined = Ref::steal(PyUnicode_Join(empty.get(), pieces.get()));
    if (!joined) return Ref();
    if (PyUnicode_GET_LENGTH(joined.get()) == 0) return text("default");
    return Ref::steal(PyUnicode_Substring(joined.get(), 0, kMaxDirectoryName));
}

// ---------------------------------------------------------------------------
// Paths

// Whether `obj` is exactly pathlib's concrete path class of this system as
// loading found it, with its methods unchanged since: for it, the native
// shortcuts give what its methods give.
bool is_plain_path(PyObject* module, PyObject* obj) {
    return allowed_for(state_of(module), FastPath::path, reinterpret_cast<PyObject*>(Py_TYPE(obj)));
}

// Whether an errno of the stat of ".git" says only that the entry is not
// there: missing, a component on the way that is no directory, a link loop,
// a bad descriptor. Every other error stops the search and reaches the caller.
bool means_no_entry(long err) { return err == ENOENT || err == ENOTDIR || err == ELOOP || err == EBADF; }

#ifdef _WIN32
// The Windows errors pathlib's exists() answered false for until 3.13: a
// drive not ready, a name the file system refuses, a link it can't resolve.
bool windows_means_no_entry(long err) { return err == 21 || err == 123 || err == 1921; }
#endif

// The int attribute `name` of an exception (errno, winerror), or -1.
long error_code(PyObject* error, const char* name) {
    Ref code = Ref::steal(PyObject_GetAttrString(error, name));
    const long value = code && PyLong_Check(code.get()) ? PyLong_AsLong(code.get()) : -1;
    PyErr_Clear();
    return value;
}

// Sorts the pending exception of a stat: 0 (cleared) when it says the entry
// is not there, or is a ValueError for a text the file system can't take;
// -1 with the exception kept otherwise.
int sort_stat_error() {
    if (PyErr_ExceptionMatches(PyExc_ValueError)) {
        PyErr_Clear();
        return 0;
    }
    if (!PyErr_ExceptionMatches(PyExc_OSError)) return -1;
    Ref error = Ref::steal(PyErr_GetRaisedException());
    bool absent = means_no_entry(error_code(error.get(), "errno"));
#ifdef _WIN32
    absent = absent || windows_means_no_entry(error_code(error.get(), "winerror"));
#endif
    if (absent) return 0;
    PyErr_SetRaisedException(error.release());
    return -1;
}

#ifndef _WIN32
// (candidate / ".git").stat() for a plain path, its errors sorted: os.stat
// of the entry's text, following links. A text the file system can't take
// is no entry; other errors carry the entry's text as their filename.
int git_entry_exists_natively(PyObject* candidate) {
    Ref base = Ref::steal(PyOS_FSPath(candidate));
    if (!base) return -1;
    Ref entry;
    if (!PyUnicode_Check(base.get())) {
        PyErr_Format(PyExc_TypeError, "expected str from __fspath__, not %.200s", Py_TYPE(base.get())->tp_name);
        return -1;
    }
    const Py_ssize_t length = PyUnicode_GET_LENGTH(base.get());
    if (PyUnicode_CompareWithASCIIString(base.get(), ".") == 0)
        entry = text(".git");  // Path(".") / ".git" is ".git"
    else if (length > 0 && PyUnicode_READ_CHAR(base.get(), length - 1) == '/')
        entry = Ref::steal(PyUnicode_FromFormat("%U.git", base.get()));  // the root
    else
        entry = Ref::steal(PyUnicode_FromFormat("%U/.git", base.get()));
    if (!entry) return -1;
    Ref bytes = Ref::steal(PyUnicode_EncodeFSDefault(entry.get()));
    if (!bytes) {
        if (!PyErr_ExceptionMatches(PyExc_ValueError)) return -1;
        PyErr_Clear();
        return 0;
    }
    const char* raw = PyBytes_AS_STRING(bytes.get());
    if (std::memchr(raw, '\0', static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get()))) != nullptr) return 0;
    struct stat info;
    int rc = 0;
    int err = 0;
    run_unlocked([&](PyThreadState*&) {
        rc = stat(raw, &info);
        err = errno;
    });
    if (rc == 0) return 1;
    if (means_no_entry(err)) return 0;
    errno = err;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, entry.get());
    return -1;
}
#endif

// Whether candidate / ".git" exists, by the rule above on every version
// (pathlib's exists() is false for every error from 3.14 on). `native`: the
// path class and what its stat() reaches are as loading found them; else
// the path's own stat() is called, so a host's fake file system sees it.
int git_entry_exists(PyObject* module, PyObject* candidate, bool native) {
#ifndef _WIN32
    const ModuleState* st = state_of(module);
    if (native && reinterpret_cast<PyObject*>(Py_TYPE(candidate)) == subject_of(st, FastPath::path))
        return git_entry_exists_natively(candidate);
#else
    (void)module;
    (void)native;
#endif
    Ref name = text(".git");
    if (!name) return -1;
    Ref entry = Ref::steal(PyNumber_TrueDivide(candidate, name.get()));
    if (!entry) return -1;
    if (call_method(entry.get(), "stat")) return 1;
    return sort_stat_error();
}

// Path.cwd() through the namespace.
Ref current_directory(PyObject* module) {
    Ref path_class = lookup(module, Name::Path);
    if (!path_class) return Ref();
    return call_method(path_class.get(), "cwd");
}

PyObject* find_git_root(PyObject* module, PyObject* const* a) {
    Ref start = Ref::borrow(a[0]);
    if (start.get() == Py_None) {
        start = current_directory(module);
        if (!start) return nullptr;
    }
    Ref current = call_method(start.get(), "absolute");
    if (!current) return nullptr;
    // (current, *current.parents): the ancestors come from the path's text.
    Ref parents = Ref::steal(PyObject_GetAttrString(current.get(), "parents"));
    if (!parents) return nullptr;
    Ref candidates = Ref::steal(PySequence_List(parents.get()));
    if (!candidates || PyList_Insert(candidates.get(), 0, current.get()) < 0) return nullptr;
    // Checked once: between candidates the native test runs no Python code.
    const ModuleState* st = state_of(module);
    const bool native = allowed(st, FastPath::path) && allowed(st, FastPath::path_stat);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(candidates.get()); ++i) {
        Ref candidate = Ref::borrow(PyList_GET_ITEM(candidates.get(), i));
        const int found = git_entry_exists(module, candidate.get(), native);
        if (found < 0) return nullptr;
        if (found) return candidate.release();
    }
    Py_RETURN_NONE;
}

PyObject* find_repo_root(PyObject* module, PyObject* const*) {
    Ref root = call_name(module, Name::find_git_root);
    if (!root) return nullptr;
    if (root.get() != Py_None) return root.release();
    return current_directory(module).release();
}

// repo_root / "memory" / "lorebook", then / name when one is given. For
// pathlib's own class (`plain`) one join of the whole tail makes the same
// path as the chain of joins, at a third of the cost: the tail never holds an
// empty or absolute component, since name is a sanitized directory name.
Ref wiki_join(PyObject* repo_root, PyObject* name, bool plain) {
    if (plain) {
        Ref tail = name ? Ref::steal(PyUnicode_FromFormat("memory/lorebook/%U", name)) : text("memory/lorebook");
        if (!tail) return Ref();
        return Ref::steal(PyNumber_TrueDivide(repo_root, tail.get()));
    }
    Ref path = Ref::borrow(repo_root);
    for (const char* component : {"memory", "lorebook"}) {
        Ref part = text(component);
        if (!part) return Ref();
        path = Ref::steal(PyNumber_TrueDivide(path.get(), part.get()));
        if (!path) return Ref();
    }
    if (name == nullptr) return path;
    return Ref::steal(PyNumber_TrueDivide(path.get(), name));
}

PyObject* normalize_branch_name(PyObject*, PyObject* const* a) {
    PyObject* name = a[0];
    if (PyUnicode_CheckExact(name)) {
        if (PyUnicode_GET_LENGTH(name) == 0) Py_RETURN_NONE;
        return normalize_text(name).release();
    }
    const int truth = PyObject_IsTrue(name);
    if (truth < 0) return nullptr;
    if (!truth) Py_RETURN_NONE;
    return normalize_object(name).release();
}

PyObject* sanitize_branch_name(PyObject*, PyObject* const* a) {
    return (PyUnicode_CheckExact(a[0]) ? sanitize_text(a[0], true) : sanitize_object(a[0])).release();
}

PyObject* wiki_root(PyObject* module, PyObject* const* a) {
    return wiki_join(a[0], nullptr, is_plain_path(module, a[0])).release();
}

// wiki_root(repo_root) / sanitize_branch_name(branch), both reached through
// the namespace; when both are this module's own and repo_root is a plain
// path, the path is made in one join.
PyObject* wiki_directory(PyObject* module, PyObject* const* a) {
    PyObject* repo_root = a[0];
    PyObject* branch = a[1];
    const ModuleState* st = state_of(module);
    Ref root_function = lookup(module, Name::wiki_root);
    if (!root_function) return nullptr;
    const bool own_root = is_original(st, Name::wiki_root, root_function.get());
    const bool plain = own_root && is_plain_path(module, repo_root);
    Ref root;
    if (!plain) {
        root = own_root ? wiki_join(repo_root, nullptr, false)
                        : call(root_function.get(), repo_root);
        if (!root) return nullptr;
    }
    Ref sanitize = lookup(module, Name::sanitize_branch_name);
    if (!sanitize) return nullptr;
    if (plain && is_original(st, Name::sanitize_branch_name, sanitize.get()) && PyUnicode_CheckExact(branch)) {
        Ref name = sanitize_text(branch, true);
        if (!name) return nullptr;
        return wiki_join(repo_root, name.get(), true).release();
    }
    if (!root) {
        root = wiki_join(repo_root, nullptr, plain);
        if (!root) return nullptr;
    }
    Ref name = call(sanitize.get(), branch);
    if (!name) return nullptr;
    return PyNumber_TrueDivide(root.get(), name.get());
}

// ---------------------------------------------------------------------------
// Queries

struct GitResult {
    Ref out;
    Ref code;
};

// stdout, _, returncode = run_git_command(repo_root, args)
int run_git(PyObject* module, PyObject* repo_root, Ref args, GitResult& result) {
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
Ref stripped_output(PyObject* module, GitResult& result, bool strip_first) {
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
    if (run_git(module, a[0], arg_list({"branch", "--show-current"}), result) < 0) return nullptr;
    return stripped_output(module, result, false).release();
}

PyObject* get_head_commit(PyObject* module, PyObject* const* a) {
    const int short_form = PyObject_IsTrue(a[1]);
    if (short_form < 0) return nullptr;
    GitResult result;
    Ref args = short_form ? arg_list({"rev-parse", "--short", "HEAD"}) : arg_list({"rev-parse", "HEAD"});
    if (run_git(module, a[0], std::move(args), result) < 0) return nullptr;
    return stripped_output(module, result, true).release();
}

PyObject* get_default_branch(PyObject* module, PyObject* const* a) {
    constexpr const char* kRemotePrefix = "refs/remotes/origin/";
    GitResult result;
    if (run_git(module, a[0], arg_list({"symbolic-ref", "refs/remotes/origin/HEAD"}), result) < 0) return nullptr;
    Ref remote_head = stripped_output(module, result, false);
    if (!remote_head) return nullptr;
    if (remote_head.get() != Py_None) {
        const int prefixed = starts_with(remote_head.get(), kRemotePrefix);
        if (prefixed < 0) return nullptr;
        return prefixed ? cut(remote_head.get(), kRemotePrefix).release() : remote_head.release();
    }
    for (const char* candidate : {"main", "master"}) {
        if (run_git(module, a[0], arg_list({"rev-parse", "--verify", candidate}), result) < 0) return nullptr;
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
    if (run_git(module, repo_root, arg_list({"rev-parse", "--verify", branch}), result) < 0) return nullptr;
    int ok = succeeded(result.code.get());
    if (ok < 0) return nullptr;
    if (ok) Py_RETURN_TRUE;
    const int remote = starts_with(branch, "origin/");
    if (remote < 0) return nullptr;
    if (!remote) {
        Ref spelled = formatted("origin/", branch, "");
        if (!spelled) return nullptr;
        if (run_git(module, repo_root, arg_list({"rev-parse", "--verify", spelled.get()}), result) < 0) return nullptr;
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
    if (run_git(module, a[0], arg_list({"rev-parse", "--verify", "--quiet", revision.get()}), result) < 0)
        return nullptr;
    return stripped_output(module, result, true).release();
}

#ifndef _WIN32
// The genuine stat behind the concrete path's stat(), on this version.
// 3.10: the class's accessor, whose type holds os.stat; from 3.11: stat()
// calls os.stat through its module's `os`.
void stat_route(GuardBuilder& guard, PyObject* plain) {
    Ref os = Ref::steal(PyImport_ImportModule("os"));
    Ref posix = Ref::steal(PyImport_ImportModule("posix"));
    Ref stat = posix ? Ref::steal(PyObject_GetAttrString(posix.get(), "stat")) : Ref();
    if (!os || !stat) {
        PyErr_Clear();
        return guard.reject();
    }
    PyObject* os_dict = PyModule_GetDict(os.get());
    guard.subject(stat.get());
    Ref accessor = Ref::steal(PyObject_GetAttrString(plain, "_accessor"));
    if (!accessor) PyErr_Clear();
    if (accessor) {
        PyObject* accessor_type = reinterpret_cast<PyObject*>(Py_TYPE(accessor.get()));
        Ref instance_dict = Ref::steal(PyObject_GenericGetDict(accessor.get(), nullptr));
        if (!instance_dict) {
            PyErr_Clear();
            return guard.reject();
        }
        guard.class_dict(accessor_type);
        guard.entry_in_class(accessor_type, "stat", stat.get());
        guard.empty_dict(instance_dict.get());
        return;
    }
    Ref method = Ref::steal(PyObject_GetAttrString(plain, "stat"));
    if (!method || !PyFunction_Check(method.get())) {
        PyErr_Clear();
        return guard.reject();
    }
    guard.entry(PyFunction_GET_GLOBALS(method.get()), "os", os.get());
    guard.entry(os_dict, "stat", stat.get());
}
#endif

#ifndef _WIN32
// pathlib's concrete path class of this system, when it is a kind of the
// Path that loading bound; null without an exception when it is not.
Ref plain_path_class(PyObject* module) {
    Ref pathlib = Ref::steal(PyImport_ImportModule("pathlib"));
    Ref plain = pathlib ? Ref::steal(PyObject_GetAttrString(pathlib.get(), "PosixPath")) : Ref();
    if (!plain) return Ref();
    PyObject* path_class = state_of(module)->originals[index(Name::Path)];
    if (!PyType_Check(plain.get()) || !PyType_Check(path_class) ||
        !PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(plain.get()), reinterpret_cast<PyTypeObject*>(path_class)))
        return Ref::borrow(Py_None);
    return plain;
}
#endif

}  // namespace

int path_guard([[maybe_unused]] PyObject* module, [[maybe_unused]] GuardBuilder& guard) {
#ifndef _WIN32
    Ref plain = plain_path_class(module);
    Ref modules = module_namespaces("pathlib");
    if (!plain || !modules) return -1;
    if (plain.get() == Py_None) return 0;
    guard.subject(plain.get());
    guard.genuine_class(plain.get(), modules.get());
#endif
    return guard.ok() ? 0 : -1;
}

int path_stat_guard([[maybe_unused]] PyObject* module, [[maybe_unused]] GuardBuilder& guard) {
#ifndef _WIN32
    Ref plain = plain_path_class(module);
    if (!plain) return -1;
    if (plain.get() == Py_None) return 0;
    stat_route(guard, plain.get());
#endif
    return guard.ok() ? 0 : -1;
}

const FunctionDef kDefs[] = {
    {Name::find_git_root,
     "(start: Path | None = None) -> Path | None",
     "Return the root of the git repository that holds start, or None.\n\n"
     "start (default: the current working directory) is made absolute without\n"
     "resolving links or collapsing \"..\"; it and then its parents, nearest\n"
     "first, are searched for a \".git\" entry of any kind (a directory, or the\n"
     "file of a worktree or submodule), following symbolic links. The first\n"
     "directory that holds one is returned in the spelling of start. A missing\n"
     "entry is no error; other file-system errors, such as permission denied,\n"
     "are raised.",
     find_git_root},
    {Name::find_repo_root,
     "() -> Path",
     "Return find_git_root() of the current working directory, or else the\n"
     "current working directory itself; never None.",
     find_repo_root},
    {Name::resolve_display_branch,
     "(repo_root: Path) -> str | None",
     "Return the name of the checked-out branch (git branch --show-current),\n"
     "or None for a detached HEAD or when git fails.",
     resolve_display_branch},
    {Name::normalize_branch_name,
     "(name: str | None) -> str | None",
     "Return the short form of a branch name, or None for an empty one.\n\n"
     "White space is stripped, then the prefixes \"refs/heads/\", \"refs/remotes/\",\n"
     "\"remotes/\" and \"origin/\" are cut in passes, each pass trying them in that\n"
     "order, until a pass cuts nothing: refs/remotes/origin/main and\n"
     "origin/main both give main. None, \"\" and a name that nothing is left of\n"
     "give None.",
     normalize_branch_name},
    {Name::sanitize_branch_name,
     "(branch: str) -> str",
     "Return a directory name for a branch: \"/\" and \"\\\" become \"__\", letters,\n"
     "digits (in the Unicode sense of str.isalnum) and \"-_.\" are kept, and\n"
     "every other character becomes \"_\". The result is cut to 100 characters;\n"
     "an empty branch gives \"default\".",
     sanitize_branch_name},
    {Name::wiki_root,
     "(repo_root: Path) -> Path",
     "Return the root of the branch wikis: repo_root / \"memory\" / \"lorebook\".",
     wiki_root},
    {Name::wiki_directory,
     "(repo_root: Path, branch: str) -> Path",
     "Return the wiki directory of a branch: wiki_root(repo_root) /\n"
     "sanitize_branch_name(branch). The branch is not normalised.",
     wiki_directory},
    {Name::get_head_commit,
     "(repo_root: Path, short: bool = True) -> str | None",
     "Return the commit id HEAD points at, abbreviated when short, or None\n"
     "when git fails (for instance in a repository without commits).",
     get_head_commit},
    {Name::get_default_branch,
     "(repo_root: Path) -> str",
     "Return the repository's default branch; never None.\n\n"
     "The target of refs/remotes/origin/HEAD without its \"refs/remotes/origin/\"\n"
     "prefix when that ref exists; else \"main\" when git resolves main, else\n"
     "\"master\" when it resolves master; else \"main\".",
     get_default_branch},
    {Name::branch_exists,
     "(repo_root: Path, branch: str) -> bool",
     "Return whether git resolves branch (rev-parse --verify), or, for a name\n"
     "not starting with \"origin/\", origin/ followed by it. Tags, commit ids and\n"
     "other revisions count too. False when git fails.",
     branch_exists},
    {Name::resolve_commit,
     "(repo_root: Path, name: str) -> str | None",
     "Return the full id of the commit that name denotes (annotated tags are\n"
     "peeled), or None when it denotes none or git fails. An empty name and one\n"
     "that starts with \"-\" give None without running git.",
     resolve_commit},
};

const std::span<const FunctionDef> kRepositoryFunctions = kDefs;

}  // namespace gu
