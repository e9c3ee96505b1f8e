#include "git_utils/binding/module_type.hpp"

#include "git_utils/binding/boundary.hpp"
#include "git_utils/binding/ref.hpp"
#include "git_utils/binding/state.hpp"

namespace gu {
namespace {

// The interpreter's module type does the work; the class only adds to it.
template <class Function>
Function module_slot(int slot) {
    return reinterpret_cast<Function>(PyType_GetSlot(&PyModule_Type, slot));
}

// Whether importlib is reloading `module` now: importlib keeps the modules
// it reloads, by name, in its _RELOADING table until the reload ends.
int being_reloaded(PyObject* module) {
    Ref name = Ref::steal(PyUnicode_FromString("importlib"));
    if (!name) return -1;
    Ref importlib = Ref::steal(PyImport_GetModule(name.get()));
    if (!importlib) return PyErr_Occurred() ? -1 : 0;
    Ref reloading;
    if (!PyModule_Check(importlib.get()) || dict_get(PyModule_GetDict(importlib.get()), "_RELOADING", reloading) < 0)
        return PyErr_Occurred() ? -1 : 0;
    if (!reloading || !PyDict_Check(reloading.get())) return 0;
    Py_ssize_t at = 0;
    PyObject* key;
    PyObject* value;
    while (PyDict_Next(reloading.get(), &at, &key, &value))
        if (value == module) return 1;
    return 0;
}

int module_setattro(PyObject* self, PyObject* name, PyObject* value) {
    if (module_slot<setattrofunc>(Py_tp_setattro)(self, name, value) < 0) return -1;
    if (value == nullptr || !PyUnicode_Check(name) || PyUnicode_CompareWithASCIIString(name, "__spec__") != 0) return 0;
    // The first load assigns __spec__ too, before the module has state.
    const ModuleState* st = state_of(self);
    if (st == nullptr || st->module_name == nullptr) return 0;
    const int reloading = being_reloaded(self);
    return reloading <= 0 ? reloading : reload_namespace(self);
}

// An instance of a class made at run time holds its class.
void module_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    module_slot<destructor>(Py_tp_dealloc)(self);
    Py_DECREF(type);
}

int module_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    return module_slot<traverseproc>(Py_tp_traverse)(self, visit, arg);
}

int module_clear(PyObject* self) { return module_slot<inquiry>(Py_tp_clear)(self); }

PyType_Slot module_type_slots[] = {
    {Py_tp_setattro, reinterpret_cast<void*>(at_boundary<module_setattro>)},
    {Py_tp_dealloc, reinterpret_cast<void*>(module_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(module_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(module_clear)},
    {0, nullptr},
};

PyType_Spec module_type_spec = {
    "morvane_tessary.utils.git_utils.native_module",
    0,
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE,
    module_type_slots,
};

}  // namespace

PyObject* create_module_object(PyObject* spec, PyModuleDef*) {
    Ref type = Ref::steal(PyType_FromSpecWithBases(&module_type_spec, reinterpret_cast<PyObject*>(&PyModule_Type)));
    if (!type) return nullptr;
    Ref name = Ref::steal(PyObject_GetAttrString(spec, "name"));
    if (!name) return nullptr;
    return PyObject_CallOneArg(type.get(), name.get());
}

}  // namespace gu
