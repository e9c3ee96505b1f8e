// The module as the host imports it: multi-phase initialisation with module
// state, and the registration of its namespace: loading (and each reload)
// binds each name in the order of names.hpp, with the value its table entry
// or function definition (found by the name) makes.
#include <Python.h>

#include <atomic>
#include <iterator>
#include <variant>

#ifndef _WIN32
#include "core/spawn.hpp"
#endif
#include "git_utils/binding/boundary.hpp"
#include "git_utils/binding/function.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/binding/log_line.hpp"
#include "git_utils/binding/module_type.hpp"
#include "git_utils/binding/names.hpp"
#include "git_utils/binding/ref.hpp"
#include "git_utils/binding/state.hpp"
#include "git_utils/changes/change_queries.hpp"
#include "git_utils/changes/file_changes.hpp"
#include "git_utils/changes/line_spans.hpp"
#include "git_utils/changes/records.hpp"
#include "git_utils/history/history.hpp"
#include "git_utils/history/time_specs.hpp"
#include "git_utils/repository/branch_names.hpp"
#include "git_utils/repository/discovery.hpp"
#include "git_utils/repository/revision_queries.hpp"
#include "git_utils/runner/runner.hpp"

namespace gu {
namespace {

const char* const kModuleDoc =
    "Git utilities for parsing git log, diff and related commands.\n"
    "\n"
    "Every question about a repository's history is answered by running the git\n"
    "command-line program as a child process, with time-out handling and error\n"
    "recovery, and parsing what it prints.\n"
    "\n"
    "Main features:\n"
    "- time-spec parsing (7d, 24h, 30m, 2w, or an ISO date) into local moments;\n"
    "- diffs and commit logs parsed into file changes (FileChange, CommitChanges)\n"
    "  and changed line spans (LineSpan);\n"
    "- default-branch detection (main or master);\n"
    "- author contribution statistics.\n"
    "\n"
    "Platform notes: on Windows the console window of git is hidden with a\n"
    "STARTUPINFO using SW_HIDE; git commands run with a default time-out of 30\n"
    "seconds.";

struct Import {
    const char* module;
    const char* attribute;  // null: the module itself
};
struct Constant {
    const char* expression;  // Python source, evaluated in the namespace
};
struct Made {
    Ref (*make)(PyObject* module, Name name);
};
struct Entry {
    Name name;
    std::variant<Import, Constant, Made> what;
};

Ref make_logger(PyObject* module, Name) {
    Ref logging = lookup(module, Name::logging);
    if (!logging) return Ref();
    return call_method(logging.get(), "getLogger", state_of(module)->module_name);
}

Ref make_error_class(PyObject* module, Name) {
    Ref qualified = Ref::steal(PyUnicode_FromFormat("%U.GitError", state_of(module)->module_name));
    if (!qualified) return Ref();
    return Ref::steal(
        PyErr_NewExceptionWithDoc(PyUnicode_AsUTF8(qualified.get()), kGitErrorDoc, PyExc_RuntimeError, nullptr));
}

constexpr Entry kNamespace[] = {
    {Name::logging, Import{"logging", nullptr}},
    {Name::re, Import{"re", nullptr}},
    {Name::subprocess, Import{"subprocess", nullptr}},
    {Name::Sequence, Import{"collections.abc", "Sequence"}},
    {Name::dataclass, Import{"dataclasses", "dataclass"}},
    {Name::datetime, Import{"datetime", "datetime"}},
    {Name::timedelta, Import{"datetime", "timedelta"}},
    {Name::Path, Import{"pathlib", "Path"}},
    {Name::Any, Import{"typing", "Any"}},
    {Name::get_subprocess_hidden_kwargs, Import{"morvane_tessary.utils.process", "get_subprocess_hidden_kwargs"}},
    {Name::logger, Made{make_logger}},
    {Name::TIME_SPEC_FORMS,
     Constant{"'a positive whole number followed by m (minutes), h (hours), d (days) or w (weeks), "
              "such as 7d or 24h, or an ISO date such as 2026-09-01'"}},
    {Name::_RELATIVE_SPEC, Constant{R"py(re.compile(r"(\d+)([mhdw])"))py"}},
    {Name::_SPEC_UNITS, Constant{R"py({"m": "minutes", "h": "hours", "d": "days", "w": "weeks"})py"}},
    {Name::_STATUS_BY_LETTER, Made{make_status_by_letter}},
    {Name::_TWO_PATH_LETTERS, Made{make_two_path_letters}},
    {Name::_COMMIT_START, Constant{R"py("\x1e")py"}},
    {Name::_PATCH_OPTIONS,
     Constant{R"py(("--no-color", "--no-ext-diff", "--no-textconv", "--no-prefix", "-M", "-U0"))py"}},
    {Name::_HUNK_HEADER, Constant{R"py(re.compile(r"@@ -\d+(?:,(\d+))? \+(\d+)(?:,(\d+))? @@"))py"}},
    {Name::_C_ESCAPE, Constant{R"py(re.compile(r"\\([0-7]{3}|.)", re.DOTALL))py"}},
    {Name::_C_ESCAPES, Made{make_c_escapes}},
    {Name::GitError, Made{make_error_class}},
    {Name::FileChange, Made{make_record_class}},
    {Name::CommitChanges, Made{make_record_class}},
    {Name::LineSpan, Made{make_record_class}},
    {Name::_MAX_PATHSPEC_CHARS, Constant{"16000"}},
};

constexpr bool follows_name_order() {
    for (std::size_t i = 1; i < std::size(kNamespace); ++i)
        if (index(kNamespace[i].name) <= index(kNamespace[i - 1].name)) return false;
    return true;
}
static_assert(follows_name_order(), "the entries follow GU_NAMESPACE, each name once");

const std::span<const FunctionDef> kFunctionTables[] = {
    kDiscoveryFunctions, kRevisionQueryFunctions, kBranchNameFunctions, kTimeSpecFunctions, kRunnerFunctions,
    kHistoryFunctions,   kChangeQueryFunctions,   kFileChangeFunctions, kLineSpanFunctions,
};

int bind(PyObject* module, Name name, Ref value) {
    ModuleState* st = state_of(module);
    if (!value || PyModule_AddObjectRef(module, kNameText[index(name)], value.get()) < 0) return -1;
    Py_XSETREF(st->originals[index(name)], value.release());
    return 0;
}

Ref import(const Import& what) {
    if (what.attribute == nullptr) return Ref::steal(PyImport_ImportModule(what.module));
    Ref fromlist = Ref::steal(Py_BuildValue("(s)", what.attribute));
    if (!fromlist) return Ref();
    Ref module = Ref::steal(PyImport_ImportModuleLevel(what.module, nullptr, nullptr, fromlist.get(), 0));
    if (!module) return Ref();
    Ref value = Ref::steal(PyObject_GetAttrString(module.get(), what.attribute));
    if (!value && PyErr_ExceptionMatches(PyExc_AttributeError)) {
        PyErr_Clear();
        PyErr_Format(PyExc_ImportError, "cannot import name '%s' from '%s'", what.attribute, what.module);
    }
    return value;
}

// The value loading binds under `name`: its entry's, or its function's.
Ref make_value(PyObject* module, Name name) {
    for (const Entry& entry : kNamespace) {
        if (entry.name != name) continue;
        if (auto* i = std::get_if<Import>(&entry.what)) return import(*i);
        if (auto* c = std::get_if<Constant>(&entry.what)) return evaluate(module, c->expression);
        return std::get<Made>(entry.what).make(module, name);
    }
    for (const std::span<const FunctionDef> table : kFunctionTables)
        for (const FunctionDef& def : table)
            if (def.name == name) return make_function(module, def);
    PyErr_Format(PyExc_SystemError, "nothing defines %s", kNameText[index(name)]);
    return Ref();
}

int init_state(PyObject* module) {
    ModuleState* st = state_of(module);
    st->module_name = PyModule_GetNameObject(module);
    if (st->module_name == nullptr) return -1;
    for (std::size_t i = 0; i < kNameCount; ++i) {
        st->names[i] = PyUnicode_InternFromString(kNameText[i]);
        if (st->names[i] == nullptr) return -1;
    }
    for (const auto& [slot, name] : kInterned)
        if ((st->*slot = PyUnicode_InternFromString(name)) == nullptr) return -1;
    Ref type = create_function_type(module);
    if (!type) return -1;
    st->function_type = type.release();
    // The builtins module of the interpreter that loads this copy of the module.
    Ref builtins = Ref::steal(PyImport_ImportModule("builtins"));
    if (!builtins) return -1;
    st->builtins = Py_NewRef(PyModule_GetDict(builtins.get()));
    Ref os = Ref::steal(PyImport_ImportModule("os"));
    if (!os) return -1;
    st->os_get_exec_path = PyObject_GetAttrString(os.get(), "get_exec_path");
    return st->os_get_exec_path ? 0 : -1;
}

#ifndef _WIN32
// At the host's exit, a daemon thread that waits for git never comes back
// (the interpreter parks or ends it when it asks for the lock), so the gits
// such threads started are killed when the interpreter has finalized.
void kill_unfinished_at_exit() { core::kill_unfinished(); }

// Once per process; where the interpreter's table of exit functions is full
// the module still loads, without this.
void register_exit_kill() {
    static std::atomic<bool> registered{false};
    if (!registered.exchange(true)) (void)Py_AtExit(kill_unfinished_at_exit);
}
#endif

// Each fast path's builder, in the order loading runs them.
constexpr FastPathDef kFastPaths[] = {
    {FastPath::spawn, spawn_guard},
    {FastPath::path, path_guard},
    {FastPath::path_stat, path_stat_guard},
    {FastPath::clock, clock_guard},
    {FastPath::logger, logger_guard},
    {FastPath::file_change, build_record_guard<Record::file_change>},
    {FastPath::commit_changes, build_record_guard<Record::commit_changes>},
    {FastPath::line_span, build_record_guard<Record::line_span>},
};
constexpr bool one_builder_each() {
    bool seen[kFastPathCount] = {};
    for (const FastPathDef& def : kFastPaths) {
        if (seen[static_cast<std::size_t>(def.path)]) return false;
        seen[static_cast<std::size_t>(def.path)] = true;
    }
    return std::size(kFastPaths) == kFastPathCount;
}
static_assert(one_builder_each(), "one builder for every fast path");

// What loading and each reload do: bind every name, then decide which fast
// paths may run.
int bind_namespace(PyObject* module) {
    for (std::size_t i = 0; i < kNameCount; ++i)
        if (bind(module, Name(i), make_value(module, Name(i))) < 0) return -1;
    // What the fast paths stand in for, if genuine now.
    return build_fast_paths(module, kFastPaths);
}

int exec_module(PyObject* module) {
    // As many definitions as names, and each name finds one: each is defined once.
    std::size_t defined = std::size(kNamespace);
    for (const std::span<const FunctionDef> table : kFunctionTables) defined += table.size();
    if (defined != kNameCount) {
        PyErr_Format(PyExc_SystemError, "%zu definitions for %zu names", defined, kNameCount);
        return -1;
    }
    if (init_state(module) < 0) return -1;
    keep_datetime_api(module);
#ifndef _WIN32
    register_exit_kill();
#endif
    return bind_namespace(module);
}

int module_traverse(PyObject* module, visitproc visit, void* arg) {
    ModuleState* st = state_of(module);
    return st ? traverse_state(st, visit, arg) : 0;
}

int module_clear(PyObject* module) {
    ModuleState* st = state_of(module);
    if (st) clear_state(st);
    return 0;
}

void module_free(void* module) { module_clear(static_cast<PyObject*>(module)); }

// Each interpreter that imports the module gets its own copy: the function
// type, the classes and every object a call uses live in that copy's state,
// and no C++ static holds a Python object, so an interpreter with its own GIL
// may load it too. Free-threading is not declared (no Py_mod_gil): the
// interpreter then turns its GIL on when it loads the module.
PyModuleDef_Slot module_slots[] = {
    {Py_mod_create, reinterpret_cast<void*>(at_boundary<create_module_object>)},
    {Py_mod_exec, reinterpret_cast<void*>(at_boundary<exec_module>)},
#if PY_VERSION_HEX >= 0x030C0000
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
#endif
    {0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT, "git_utils",     kModuleDoc,   sizeof(ModuleState), nullptr,
    module_slots,          module_traverse, module_clear, module_free,
};

}  // namespace

// A reload binds every name again, as a Python module's reload runs its
// code again: the host's replacements are gone, the classes and functions
// are new ones, and the fast paths are decided anew.
int reload_namespace(PyObject* module) { return at_boundary<bind_namespace>(module); }

}  // namespace gu

PyMODINIT_FUNC PyInit_git_utils() { return PyModuleDef_Init(&gu::module_def); }
