#include "git_utils/repository/discovery.hpp"

#include <cerrno>
#include <cstring>

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include "git_utils/binding/fast_paths.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/binding/state.hpp"
#include "git_utils/binding/unlocked.hpp"

namespace gu {
namespace {

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

#ifndef _WIN32
// The genuine stat behind the concrete path's stat(), on this version.
// 3.10: the class's accessor, whose type holds os.stat; from 3.11: stat()
// calls os.stat through its module's `os`.
void stat_route(GuardBuilder& guard, PyObject* plain) {
    Ref os = Ref::steal(PyImport_ImportModule("os"));
    Ref posix = os ? Ref::steal(PyImport_ImportModule("posix")) : Ref();
    Ref stat = posix ? Ref::steal(PyObject_GetAttrString(posix.get(), "stat")) : Ref();
    if (!stat) {
        PyErr_Clear();
        return guard.reject();
    }
    // A stand-in for os (pyfakefs's, imported in its place) is no module.
    if (!PyModule_Check(os.get())) return guard.reject();
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
// Path that loading bound; declined when it is not; null with an exception
// when the lookup failed.
Native plain_path_class(PyObject* module) {
    Ref pathlib = Ref::steal(PyImport_ImportModule("pathlib"));
    Ref plain = pathlib ? Ref::steal(PyObject_GetAttrString(pathlib.get(), "PosixPath")) : Ref();
    if (!plain) return Ref();
    PyObject* path_class = state_of(module)->originals[index(Name::Path)];
    if (!PyType_Check(plain.get()) || !PyType_Check(path_class) ||
        !PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(plain.get()), reinterpret_cast<PyTypeObject*>(path_class)))
        return declined;
    return plain;
}
#endif

}  // namespace

int path_guard([[maybe_unused]] PyObject* module, [[maybe_unused]] GuardBuilder& guard) {
#ifndef _WIN32
    const Native plain = plain_path_class(module);
    if (!plain) return 0;
    Ref modules = module_namespaces("pathlib");
    if (!*plain || !modules) return -1;
    guard.subject(plain->get());
    guard.genuine_class(plain->get(), modules.get());
#endif
    return guard.ok() ? 0 : -1;
}

int path_stat_guard([[maybe_unused]] PyObject* module, [[maybe_unused]] GuardBuilder& guard) {
#ifndef _WIN32
    const Native plain = plain_path_class(module);
    if (!plain) return 0;
    if (!*plain) return -1;
    stat_route(guard, plain->get());
#endif
    return guard.ok() ? 0 : -1;
}

const FunctionDef kDefs[] = {
    {Name::find_git_root, "(start: Path | None = None) -> Path | None",
     "Return the root of the git repository that holds start, or None.\n\n"
     "start (default: the current working directory) is made absolute without\n"
     "resolving links or collapsing \"..\"; it and then its parents, nearest\n"
     "first, are searched for a \".git\" entry of any kind (a directory, or the\n"
     "file of a worktree or submodule), following symbolic links. The first\n"
     "directory that holds one is returned in the spelling of start. A missing\n"
     "entry is no error; other file-system errors, such as permission denied,\n"
     "are raised.",
     find_git_root},
    {Name::find_repo_root, "() -> Path",
     "Return find_git_root() of the current working directory, or else the\n"
     "current working directory itself; never None.",
     find_repo_root},
};

const std::span<const FunctionDef> kDiscoveryFunctions = kDefs;

}  // namespace gu
