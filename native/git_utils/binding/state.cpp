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

namespace {

// Every object module state owns, for traversal and clearing alike.
template <class Each>
void each_owned(ModuleState* st, Each each) {
    each(st->function_type);
    each(st->module_name);
    for (PyObject*& o : st->names) each(o);
    for (PyObject*& o : st->originals) each(o);
    for (Guard& g : st->fast_paths)
        for (PyObject** o : owned(g)) each(*o);
    each(st->os_get_exec_path);
    each(st->builtins);
    for (const auto& interned : kInterned) each(st->*interned.first);
    for (PyObject*& o : st->record_fields) each(o);
}

}  // namespace

int traverse_state(ModuleState* st, visitproc visit, void* arg) {
    int result = 0;
    each_owned(st, [&](PyObject* o) {
        if (result == 0 && o != nullptr) result = visit(o, arg);
    });
    return result;
}

void clear_state(ModuleState* st) {
    each_owned(st, [](PyObject*& o) { Py_CLEAR(o); });
    for (Guard& g : st->fast_paths) g.impl = nullptr;
}

}  // namespace gu
