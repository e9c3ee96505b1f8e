#include "git_utils/repository/branch_names.hpp"

#include <cstring>
#include <initializer_list>

#include "git_utils/binding/fast_paths.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/binding/state.hpp"

namespace gu {
namespace {

// The longest directory name sanitize_branch_name gives, in code points.
constexpr Py_ssize_t kMaxDirectoryName = 100;

// The ref prefixes normalize_branch_name cuts, in the order of one pass.
constexpr const char* kRefPrefixes[] = {"refs/heads/", "refs/remotes/", "remotes/", "origin/"};

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
Ref normalize_object(PyObject* module, PyObject* name) {
    Ref current = strip(module, name);
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

// Whether `obj` is exactly pathlib's concrete path class of this system as
// loading found it, with its methods unchanged since: for it, the native
// shortcuts give what its methods give.
bool is_plain_path(PyObject* module, PyObject* obj) {
    return allowed_for(state_of(module), FastPath::path, reinterpret_cast<PyObject*>(Py_TYPE(obj)));
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

PyObject* normalize_branch_name(PyObject* module, PyObject* const* a) {
    PyObject* name = a[0];
    if (PyUnicode_CheckExact(name)) {
        if (PyUnicode_GET_LENGTH(name) == 0) Py_RETURN_NONE;
        return normalize_text(name).release();
    }
    const int truth = PyObject_IsTrue(name);
    if (truth < 0) return nullptr;
    if (!truth) Py_RETURN_NONE;
    return normalize_object(module, name).release();
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
        root = own_root ? wiki_join(repo_root, nullptr, false) : call(root_function.get(), repo_root);
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

}  // namespace

const FunctionDef kDefs[] = {
    {Name::normalize_branch_name, "(name: str | None) -> str | None",
     "Return the short form of a branch name, or None for an empty one.\n\n"
     "White space is stripped, then the prefixes \"refs/heads/\", \"refs/remotes/\",\n"
     "\"remotes/\" and \"origin/\" are cut in passes, each pass trying them in that\n"
     "order, until a pass cuts nothing: refs/remotes/origin/main and\n"
     "origin/main both give main. None, \"\" and a name that nothing is left of\n"
     "give None.",
     normalize_branch_name},
    {Name::sanitize_branch_name, "(branch: str) -> str",
     "Return a directory name for a branch: \"/\" and \"\\\" become \"__\", letters,\n"
     "digits (in the Unicode sense of str.isalnum) and \"-_.\" are kept, and\n"
     "every other character becomes \"_\". The result is cut to 100 characters;\n"
     "an empty branch gives \"default\".",
     sanitize_branch_name},
    {Name::wiki_root, "(repo_root: Path) -> Path",
     "Return the root of the branch wikis: repo_root / \"memory\" / \"lorebook\".", wiki_root},
    {Name::wiki_directory, "(repo_root: Path, branch: str) -> Path",
     "Return the wiki directory of a branch: wiki_root(repo_root) /\n"
     "sanitize_branch_name(branch). The branch is not normalised.",
     wiki_directory},
};

const std::span<const FunctionDef> kBranchNameFunctions = kDefs;

}  // namespace gu
