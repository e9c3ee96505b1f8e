#include "git_utils/state.hpp"

#include <initializer_list>

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
    Py_VISIT(st->subprocess_run);
    Py_VISIT(st->plain_path);
    Py_VISIT(st->datetime_now);
    Py_VISIT(st->logger_class);
    for (const Guard* g : {&st->runner_guard, &st->path_guard, &st->stat_guard, &st->logger_guard})
        if (int r = traverse_guard(*g, visit, arg)) return r;
    Py_VISIT(st->os_get_exec_path);
    Py_VISIT(st->builtins);
    for (PyObject* o : st->record_inits) Py_VISIT(o);
    return 0;
}

void clear_state(ModuleState* st) {
    Py_CLEAR(st->function_type);
    Py_CLEAR(st->module_name);
    for (PyObject*& o : st->names) Py_CLEAR(o);
    for (PyObject*& o : st->originals) Py_CLEAR(o);
    Py_CLEAR(st->subprocess_run);
    Py_CLEAR(st->plain_path);
    Py_CLEAR(st->datetime_now);
    Py_CLEAR(st->logger_class);
    for (Guard* g : {&st->runner_guard, &st->path_guard, &st->stat_guard, &st->logger_guard}) clear_guard(*g);
    Py_CLEAR(st->os_get_exec_path);
    Py_CLEAR(st->builtins);
    for (const auto& interned : kInterned) Py_CLEAR(st->*interned.first);
    for (PyObject*& o : st->record_fields) Py_CLEAR(o);
    for (PyObject*& o : st->record_inits) Py_CLEAR(o);
}

}  // namespace gu
