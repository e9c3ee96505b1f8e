#include "git_utils/binding/state.hpp"


namespace gu {

ModuleState* state_of(PyObject* module) { return static_cast<ModuleState*>(PyModule_GetState(module)); }

Ref lookup(PyObject* module, Name name) {
    ModuleState* st = state_of(module);
    PyObject* key = st->names[index(name)];
    Ref found;
    if (dict_get(PyModule_GetDict(module), key, found) == 0)
        PyErr_Format(PyExc_NameError, "name '%U' is not defined", key);
    return found;
}

Ref namespace_copy(PyObject* module) {
    Ref globals = Ref::steal(PyDict_Copy(PyModule_GetDict(module)));
    if (!globals || PyDict_SetItemString(globals.get(), "__builtins__", state_of(module)->builtins) < 0) return Ref();
    return globals;
}

int traverse_state(ModuleState* st, visitproc visit, void* arg) {
    Py_VISIT(st->function_type);
    Py_VISIT(st->module_name);
    for (PyObject* o : st->originals) Py_VISIT(o);
    for (const Guard& g : st->fast_paths)
        if (int r = traverse_guard(g, visit, arg)) return r;
    Py_VISIT(st->os_get_exec_path);
    Py_VISIT(st->builtins);
    return 0;
}

void clear_state(ModuleState* st) {
    Py_CLEAR(st->function_type);
    Py_CLEAR(st->module_name);
    for (PyObject*& o : st->names) Py_CLEAR(o);
    for (PyObject*& o : st->originals) Py_CLEAR(o);
    for (Guard& g : st->fast_paths) clear_guard(g);
    Py_CLEAR(st->os_get_exec_path);
    Py_CLEAR(st->builtins);
    for (const auto& interned : kInterned) Py_CLEAR(st->*interned.first);
    for (PyObject*& o : st->record_fields) Py_CLEAR(o);
}

bool allowed(const ModuleState* st, FastPath path) { return guard_holds(st->fast_paths[static_cast<std::size_t>(path)]); }

bool allowed_for(const ModuleState* st, FastPath path, PyObject* found) {
    return found == subject_of(st, path) && allowed(st, path);
}

PyObject* subject_of(const ModuleState* st, FastPath path) {
    return st->fast_paths[static_cast<std::size_t>(path)].subject;
}

int build_fast_paths(PyObject* module, std::span<const FastPathDef> defs) {
    ModuleState* st = state_of(module);
    for (const FastPathDef& def : defs) {
        GuardBuilder guard;
        if (def.build(module, guard) < 0 || guard.finish(st->fast_paths[static_cast<std::size_t>(def.path)]) < 0)
            return -1;
    }
    return 0;
}

}  // namespace gu
