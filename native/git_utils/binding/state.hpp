// Module state: what loading bound (the "originals"), the interned names of
// the namespace, and the few interpreter objects the binding needs. Calls
// read the namespace afresh and compare what they find with the originals:
// the same object means the native path may run.
#pragma once

#include <Python.h>

#include <utility>

#include "git_utils/binding/fast_paths.hpp"
#include "git_utils/binding/genuine.hpp"
#include "git_utils/binding/names.hpp"
#include "git_utils/binding/ref.hpp"

namespace gu {

struct ModuleState {
    PyObject* function_type;           // the native function type
    PyObject* module_name;             // __name__ at load, the __module__ of functions and classes
    PyObject* names[kNameCount];       // interned attribute names
    PyObject* originals[kNameCount];   // what loading bound under each name (null: not built)
    Guard fast_paths[kFastPathCount];  // what each fast path stands in for, as loading found it
    void* datetime_api;                // the datetime C API, imported at load
    PyObject* str_is_enabled_for;      // interned "isEnabledFor"
    PyObject* str_make_record;         // interned "makeRecord"
    PyObject* str_handle;              // interned "handle"
    PyObject* os_get_exec_path;        // os.get_exec_path, for the PATH search of git
    PyObject* builtins;                // this interpreter's builtins namespace, for code run at load
    PyObject* str_run;                 // interned "run"
    PyObject* str_strip;               // interned "strip"
    PyObject* str_debug;               // interned "debug"
    PyObject* str_warning;             // interned "warning"
    PyObject* record_fields[3];        // field names of each record class, in order
};

// The interned names above and their texts.
inline constexpr std::pair<PyObject * ModuleState::*, const char*> kInterned[] = {
    {&ModuleState::str_is_enabled_for, "isEnabledFor"},
    {&ModuleState::str_make_record, "makeRecord"},
    {&ModuleState::str_handle, "handle"},
    {&ModuleState::str_run, "run"},
    {&ModuleState::str_strip, "strip"},
    {&ModuleState::str_debug, "debug"},
    {&ModuleState::str_warning, "warning"},
};

ModuleState* state_of(PyObject* module);

// The object the namespace holds under `name` now (a new reference), or
// null with the NameError that Python code would raise.
Ref lookup(PyObject* module, Name name);

inline bool is_original(const ModuleState* st, Name name, PyObject* found) {
    return found == st->originals[index(name)];
}

// A copy of the namespace as it stands, with this interpreter's builtins:
// the globals in which loading runs its bits of Python source.
Ref namespace_copy(PyObject* module);

int traverse_state(ModuleState* st, visitproc visit, void* arg);
void clear_state(ModuleState* st);

}  // namespace gu
