#include "git_utils/state.hpp"

namespace gu {

ModuleState* state_of(PyObject* module) { return static_cast<ModuleState*>(PyModule_GetState(module)); }

Ref lookup(PyObject* module, Name name) {
    ModuleState* st = state_of(module);
    PyObject* key = st->names[index(name)];
    PyObject* found = PyDict_GetItemWithError(PyModule_GetDict(module), key);
    if (found == nullptr) {
        if (!PyErr_Occurred()) PyErr_Format(PyExc_NameError, "name '%U' is not defined", key);
        return Ref();
    }
    return Ref::borrow(found);
}

int traverse_state(ModuleState* st, visitproc visit, void* arg) {
    Py_VISIT(st->function_type);
    Py_VISIT(st->module_name);
    for (PyObject* o : st->originals) Py_VISIT(o);
    Py_VISIT(st->subprocess_run);
    Py_VISIT(st->os_get_exec_path);
    for (PyObject* o : st->record_inits) Py_VISIT(o);
    return 0;
}

void clear_state(ModuleState* st) {
    Py_CLEAR(st->function_type);
    Py_CLEAR(st->module_name);
    for (PyObject*& o : st->names) Py_CLEAR(o);
    for (PyObject*& o : st->originals) Py_CLEAR(o);
    Py_CLEAR(st->subprocess_run);
    Py_CLEAR(st->os_get_exec_path);
    Py_CLEAR(st->str_run);
    Py_CLEAR(st->str_strip);
    Py_CLEAR(st->str_debug);
    Py_CLEAR(st->str_warning);
    for (PyObject*& o : st->record_fields) Py_CLEAR(o);
    for (PyObject*& o : st->record_inits) Py_CLEAR(o);
    Py_CLEAR(st->str_init);
}

}  // namespace gu
