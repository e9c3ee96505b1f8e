#include "git_utils/binding/function.hpp"

#include <array>
#include <string>
#include <utility>

#include "git_utils/binding/boundary.hpp"
#include "git_utils/binding/compat.hpp"
#include "git_utils/binding/state.hpp"

namespace gu {
namespace {

struct NativeFunction {
    PyObject_HEAD vectorcallfunc vectorcall;
    const FunctionDef* def;
    PyObject* module;  // the namespace the function reads at each call
    PyObject* dict;    // __dict__
    PyObject* weaklist;
    PyObject* name;         // __name__
    PyObject* qualname;     // __qualname__
    PyObject* module_name;  // __module__
    PyObject* doc;          // __doc__
    PyObject* defaults;     // __defaults__: a tuple, or null
    PyObject* kwdefaults;   // __kwdefaults__: a dict, or null
    PyObject* annotations;  // __annotations__: a dict, or null
    PyObject* params;       // parameter names: positional-or-keyword, then keyword-only
    Py_ssize_t argcount;    // positional-or-keyword parameters
    Py_ssize_t kwonlycount;
};

NativeFunction* as_function(PyObject* o) { return reinterpret_cast<NativeFunction*>(o); }

// Every replaceable attribute is read and replaced under the function's
// critical section, so a reader always takes its reference to a live value
// (with the global lock the section is a plain block). The value a write
// replaces is released after the section ends: that may run any code.
using Slot = PyObject* NativeFunction::*;

Ref read_slot(PyObject* self, Slot slot) {
    Ref value;
    Py_BEGIN_CRITICAL_SECTION(self);
    value = Ref::borrow(as_function(self)->*slot);
    Py_END_CRITICAL_SECTION();
    return value;
}

void write_slot(PyObject* self, Slot slot, PyObject* value) {
    Ref old;
    Py_BEGIN_CRITICAL_SECTION(self);
    old = Ref::steal(std::exchange(as_function(self)->*slot, Py_XNewRef(value)));
    Py_END_CRITICAL_SECTION();
}

// The name error messages give, as __qualname__ holds it now.
Ref qualname_of(NativeFunction* f) { return read_slot(reinterpret_cast<PyObject*>(f), &NativeFunction::qualname); }

// The defaults a call binds from, taken together under the function's
// critical section: the body (or, without the global lock, another thread)
// may replace them while the call runs, and the call goes on with what it read.
struct CallDefaults {
    Ref positional;  // __defaults__: a tuple, or null
    Ref keyword;     // __kwdefaults__: a dict, or null

    explicit CallDefaults(NativeFunction* f) {
        Py_BEGIN_CRITICAL_SECTION(reinterpret_cast<PyObject*>(f));
        positional = Ref::borrow(f->defaults);
        keyword = Ref::borrow(f->kwdefaults);
        Py_END_CRITICAL_SECTION();
    }
    Py_ssize_t count() const { return positional ? PyTuple_GET_SIZE(positional.get()) : 0; }
};

// ---- argument binding, with the interpreter's messages -------------------

PyObject* format_missing(PyObject* qualname, const char* kind, PyObject* names) {
    const Py_ssize_t len = PyList_GET_SIZE(names);
    Ref joined;
    if (len == 1) {
        joined = Ref::borrow(PyList_GET_ITEM(names, 0));
    } else if (len == 2) {
        joined = Ref::steal(PyUnicode_FromFormat("%U and %U", PyList_GET_ITEM(names, 0), PyList_GET_ITEM(names, 1)));
    } else {
        Ref tail = Ref::steal(
            PyUnicode_FromFormat(", %U, and %U", PyList_GET_ITEM(names, len - 2), PyList_GET_ITEM(names, len - 1)));
        Ref head = Ref::steal(PyList_GetSlice(names, 0, len - 2));
        Ref sep = Ref::steal(PyUnicode_FromString(", "));
        if (!tail || !head || !sep) return nullptr;
        Ref start = Ref::steal(PyUnicode_Join(sep.get(), head.get()));
        if (!start) return nullptr;
        joined = Ref::steal(PyUnicode_Concat(start.get(), tail.get()));
    }
    if (!joined) return nullptr;
    PyErr_Format(PyExc_TypeError, "%U() missing %zd required %s argument%s: %U", qualname, len, kind,
                 len == 1 ? "" : "s", joined.get());
    return nullptr;
}

PyObject* missing_arguments(NativeFunction* f, PyObject* const* bound, Py_ssize_t start, Py_ssize_t end,
                            const char* kind) {
    Ref names = Ref::steal(PyList_New(0));
    if (!names) return nullptr;
    for (Py_ssize_t i = start; i < end; ++i) {
        if (bound[i] != nullptr) continue;
        Ref r = Ref::steal(PyObject_Repr(PyTuple_GET_ITEM(f->params, i)));
        if (!r || PyList_Append(names.get(), r.get()) < 0) return nullptr;
    }
    return format_missing(qualname_of(f).get(), kind, names.get());
}

PyObject* too_many_positional(NativeFunction* f, const CallDefaults& defaults, PyObject* const* bound,
                              Py_ssize_t given) {
    Py_ssize_t kwonly_given = 0;
    for (Py_ssize_t i = f->argcount; i < f->argcount + f->kwonlycount; ++i) kwonly_given += bound[i] != nullptr;
    const Py_ssize_t defcount = defaults.count();
    Ref sig;
    bool plural;
    if (defcount) {
        plural = true;
        sig = Ref::steal(PyUnicode_FromFormat("from %zd to %zd", f->argcount - defcount, f->argcount));
    } else {
        plural = f->argcount != 1;
        sig = Ref::steal(PyUnicode_FromFormat("%zd", f->argcount));
    }
    if (!sig) return nullptr;
    Ref kwonly_sig =
        kwonly_given
            ? Ref::steal(PyUnicode_FromFormat(" positional argument%s (and %zd keyword-only argument%s)",
                                              given != 1 ? "s" : "", kwonly_given, kwonly_given != 1 ? "s" : ""))
            : Ref::steal(PyUnicode_FromString(""));
    if (!kwonly_sig) return nullptr;
    PyErr_Format(PyExc_TypeError, "%U() takes %U positional argument%s but %zd%U %s given", qualname_of(f).get(),
                 sig.get(), plural ? "s" : "", given, kwonly_sig.get(), given == 1 && !kwonly_given ? "was" : "were");
    return nullptr;
}

Py_ssize_t find_param(NativeFunction* f, PyObject* key) {
    const Py_ssize_t total = f->argcount + f->kwonlycount;
    for (Py_ssize_t j = 0; j < total; ++j)
        if (PyTuple_GET_ITEM(f->params, j) == key) return j;
    for (Py_ssize_t j = 0; j < total; ++j) {
        const int eq = PyObject_RichCompareBool(PyTuple_GET_ITEM(f->params, j), key, Py_EQ);
        if (eq < 0) return -2;
        if (eq) return j;
    }
    return -1;
}

PyObject* run_body(NativeFunction* f, PyObject* const* bound) {
    Ref module = Ref::borrow(f->module);
    return f->def->impl(module.get(), bound);
}

// Fills the keyword-only parameters the call left out from __kwdefaults__,
// then runs the body. The values are held for the call: the dict may change
// while the body runs.
PyObject* run_with_keyword_defaults(NativeFunction* f, const CallDefaults& defaults, PyObject** bound) {
    Ref held[kMaxParams];
    const Py_ssize_t total = f->argcount + f->kwonlycount;
    bool missing = false;
    for (Py_ssize_t i = f->argcount; i < total; ++i) {
        if (bound[i] != nullptr) continue;
        if (defaults.keyword) {
            const int found = dict_get(defaults.keyword.get(), PyTuple_GET_ITEM(f->params, i), held[i]);
            if (found < 0) return nullptr;
            if (found) {
                bound[i] = held[i].get();
                continue;
            }
        }
        missing = true;
    }
    if (missing) return missing_arguments(f, bound, f->argcount, total, "keyword-only");
    return run_body(f, bound);
}

// Binds the call's arguments to parameters in the order and with the errors
// of the interpreter's own function calls, then runs the body.
PyObject* function_vectorcall(PyObject* self, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    NativeFunction* f = as_function(self);
    const CallDefaults defaults(f);
    const Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    PyObject* bound[kMaxParams] = {};

    const Py_ssize_t npos = nargs < f->argcount ? nargs : f->argcount;
    for (Py_ssize_t i = 0; i < npos; ++i) bound[i] = args[i];

    const Py_ssize_t nkw = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t k = 0; k < nkw; ++k) {
        PyObject* key = PyTuple_GET_ITEM(kwnames, k);
        const Py_ssize_t j = find_param(f, key);
        if (j == -2) return nullptr;
        if (j < 0) {
            PyErr_Format(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'", qualname_of(f).get(), key);
            return nullptr;
        }
        if (bound[j] != nullptr) {
            PyErr_Format(PyExc_TypeError, "%U() got multiple values for argument '%S'", qualname_of(f).get(), key);
            return nullptr;
        }
        bound[j] = args[nargs + k];
    }

    if (nargs > f->argcount) return too_many_positional(f, defaults, bound, nargs);

    const Py_ssize_t required = f->argcount - defaults.count();
    for (Py_ssize_t i = nargs; i < required; ++i)
        if (bound[i] == nullptr) return missing_arguments(f, bound, 0, required, "positional");
    for (Py_ssize_t i = required > 0 ? required : 0; i < f->argcount; ++i)
        if (bound[i] == nullptr) bound[i] = PyTuple_GET_ITEM(defaults.positional.get(), i - required);

    if (f->kwonlycount > 0) return run_with_keyword_defaults(f, defaults, bound);
    return run_body(f, bound);
}

// ---- attributes ----------------------------------------------------------

PyObject* get_optional(PyObject* self, Slot slot) {
    Ref value = read_slot(self, slot);
    return value ? value.release() : Py_NewRef(Py_None);
}

int set_text(PyObject* self, Slot slot, PyObject* value, const char* what) {
    if (value == nullptr || !PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s must be set to a string object", what);
        return -1;
    }
    write_slot(self, slot, value);
    return 0;
}

int set_optional(PyObject* self, Slot slot, PyObject* value, bool (*check)(PyObject*), const char* message) {
    if (value == Py_None) value = nullptr;
    if (value != nullptr && !check(value)) {
        PyErr_SetString(PyExc_TypeError, message);
        return -1;
    }
    write_slot(self, slot, value);
    return 0;
}

bool is_tuple(PyObject* o) { return PyTuple_Check(o); }
bool is_dict(PyObject* o) { return PyDict_Check(o); }

PyObject* get_name(PyObject* self, void*) { return read_slot(self, &NativeFunction::name).release(); }
int set_name(PyObject* self, PyObject* value, void*) {
    return set_text(self, &NativeFunction::name, value, "__name__");
}
PyObject* get_qualname(PyObject* self, void*) { return read_slot(self, &NativeFunction::qualname).release(); }
int set_qualname(PyObject* self, PyObject* value, void*) {
    return set_text(self, &NativeFunction::qualname, value, "__qualname__");
}

PyObject* get_defaults(PyObject* self, void*) { return get_optional(self, &NativeFunction::defaults); }
int set_defaults(PyObject* self, PyObject* value, void*) {
    return set_optional(self, &NativeFunction::defaults, value, is_tuple, "__defaults__ must be set to a tuple object");
}
PyObject* get_kwdefaults(PyObject* self, void*) { return get_optional(self, &NativeFunction::kwdefaults); }
int set_kwdefaults(PyObject* self, PyObject* value, void*) {
    return set_optional(self, &NativeFunction::kwdefaults, value, is_dict,
                        "__kwdefaults__ must be set to a dict object");
}

// Read after `del f.__annotations__`, a fresh empty dict takes its place.
PyObject* get_annotations(PyObject* self, void*) {
    NativeFunction* f = as_function(self);
    PyObject* value;
    Py_BEGIN_CRITICAL_SECTION(self);
    if (f->annotations == nullptr) f->annotations = PyDict_New();
    value = Py_XNewRef(f->annotations);
    Py_END_CRITICAL_SECTION();
    return value;
}
int set_annotations(PyObject* self, PyObject* value, void*) {
    return set_optional(self, &NativeFunction::annotations, value, is_dict,
                        "__annotations__ must be set to a dict object");
}

// As on a Python function, __module__ and __doc__ take any value, and
// deleting one leaves None in its place.
PyObject* get_module_name(PyObject* self, void*) { return get_optional(self, &NativeFunction::module_name); }
int set_module_name(PyObject* self, PyObject* value, void*) {
    write_slot(self, &NativeFunction::module_name, value);
    return 0;
}
PyObject* get_doc(PyObject* self, void*) { return get_optional(self, &NativeFunction::doc); }
int set_doc(PyObject* self, PyObject* value, void*) {
    write_slot(self, &NativeFunction::doc, value);
    return 0;
}

PyObject* get_globals(PyObject* self, void*) { return Py_NewRef(PyModule_GetDict(as_function(self)->module)); }

// inspect.Signature from the parameter table and the current defaults and
// annotations, as inspect builds it for a Python function.
PyObject* get_signature(PyObject* self, void*) {
    NativeFunction* f = as_function(self);
    Ref inspect = Ref::steal(PyImport_ImportModule("inspect"));
    if (!inspect) return nullptr;
    Ref parameter = Ref::steal(PyObject_GetAttrString(inspect.get(), "Parameter"));
    Ref signature = Ref::steal(PyObject_GetAttrString(inspect.get(), "Signature"));
    if (!parameter || !signature) return nullptr;
    Ref positional = Ref::steal(PyObject_GetAttrString(parameter.get(), "POSITIONAL_OR_KEYWORD"));
    Ref keyword_only = Ref::steal(PyObject_GetAttrString(parameter.get(), "KEYWORD_ONLY"));
    if (!positional || !keyword_only) return nullptr;

    const Ref defaults = read_slot(self, &NativeFunction::defaults);
    const Ref kwdefaults = read_slot(self, &NativeFunction::kwdefaults);
    const Ref annotations = read_slot(self, &NativeFunction::annotations);
    const Py_ssize_t total = f->argcount + f->kwonlycount;
    const Py_ssize_t defcount = defaults ? PyTuple_GET_SIZE(defaults.get()) : 0;
    Ref params = Ref::steal(PyList_New(0));
    if (!params) return nullptr;
    for (Py_ssize_t i = 0; i < total; ++i) {
        PyObject* name = PyTuple_GET_ITEM(f->params, i);
        Ref kwargs = Ref::steal(PyDict_New());
        if (!kwargs) return nullptr;
        Ref def;
        if (i < f->argcount) {
            if (i >= f->argcount - defcount)
                def = Ref::borrow(PyTuple_GET_ITEM(defaults.get(), i - (f->argcount - defcount)));
        } else if (kwdefaults && dict_get(kwdefaults.get(), name, def) < 0) {
            return nullptr;
        }
        if (def && PyDict_SetItemString(kwargs.get(), "default", def.get()) < 0) return nullptr;
        Ref ann;
        if (annotations && dict_get(annotations.get(), name, ann) < 0) return nullptr;
        if (ann && PyDict_SetItemString(kwargs.get(), "annotation", ann.get()) < 0) return nullptr;
        Ref args = Ref::steal(PyTuple_Pack(2, name, i < f->argcount ? positional.get() : keyword_only.get()));
        if (!args) return nullptr;
        Ref p = Ref::steal(PyObject_Call(parameter.get(), args.get(), kwargs.get()));
        if (!p || PyList_Append(params.get(), p.get()) < 0) return nullptr;
    }
    Ref kwargs = Ref::steal(PyDict_New());
    if (!kwargs) return nullptr;
    Ref ret;
    if (annotations && dict_get(annotations.get(), "return", ret) < 0) return nullptr;
    if (ret && PyDict_SetItemString(kwargs.get(), "return_annotation", ret.get()) < 0) return nullptr;
    Ref args = Ref::steal(PyTuple_Pack(1, params.get()));
    if (!args) return nullptr;
    return PyObject_Call(signature.get(), args.get(), kwargs.get());
}

PyGetSetDef function_getset[] = {
    {"__name__", at_boundary<get_name>, at_boundary<set_name>, nullptr, nullptr},
    {"__qualname__", at_boundary<get_qualname>, at_boundary<set_qualname>, nullptr, nullptr},
    {"__defaults__", at_boundary<get_defaults>, at_boundary<set_defaults>, nullptr, nullptr},
    {"__kwdefaults__", at_boundary<get_kwdefaults>, at_boundary<set_kwdefaults>, nullptr, nullptr},
    {"__annotations__", at_boundary<get_annotations>, at_boundary<set_annotations>, nullptr, nullptr},
    {"__module__", at_boundary<get_module_name>, at_boundary<set_module_name>, nullptr, nullptr},
    {"__doc__", at_boundary<get_doc>, at_boundary<set_doc>, nullptr, nullptr},
    {"__globals__", at_boundary<get_globals>, nullptr, nullptr, nullptr},
    {"__signature__", at_boundary<get_signature>, nullptr, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

// The type's layout for interpreters that read it from members (3.10, 3.11).
PyMemberDef function_members[] = {
    {"__dictoffset__", Py_T_PYSSIZET, offsetof(NativeFunction, dict), Py_READONLY, nullptr},
    {"__weaklistoffset__", Py_T_PYSSIZET, offsetof(NativeFunction, weaklist), Py_READONLY, nullptr},
    {"__vectorcalloffset__", Py_T_PYSSIZET, offsetof(NativeFunction, vectorcall), Py_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

// Pickle finds the function again through its module, by name.
PyObject* function_reduce(PyObject* self, PyObject*) { return read_slot(self, &NativeFunction::qualname).release(); }

PyMethodDef function_methods[] = {
    {"__reduce__", at_boundary<function_reduce>, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyObject* function_repr(PyObject* self) {
    const Ref qualname = read_slot(self, &NativeFunction::qualname);
    return PyUnicode_FromFormat("<function %U at %p>", qualname.get(), self);
}

// Accessed through an instance, the function binds like a Python function.
PyObject* function_descr_get(PyObject* self, PyObject* obj, PyObject*) {
    if (obj == nullptr || obj == Py_None) return Py_NewRef(self);
    return PyMethod_New(self, obj);
}

// Every object a function owns, for traversal and clearing alike.
std::array<PyObject**, 10> owned(NativeFunction* f) {
    return {&f->module, &f->dict,     &f->name,       &f->qualname,    &f->module_name,
            &f->doc,    &f->defaults, &f->kwdefaults, &f->annotations, &f->params};
}

int function_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    for (PyObject** o : owned(as_function(self))) Py_VISIT(*o);
    return 0;
}

int function_clear(PyObject* self) {
    for (PyObject** o : owned(as_function(self))) Py_CLEAR(*o);
    return 0;
}

void function_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    if (as_function(self)->weaklist) PyObject_ClearWeakRefs(self);
    function_clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

PyType_Slot function_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(function_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(function_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(function_clear)},
    {Py_tp_repr, reinterpret_cast<void*>(at_boundary<function_repr>)},
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_descr_get, reinterpret_cast<void*>(at_boundary<function_descr_get>)},
    {Py_tp_getset, function_getset},
    {Py_tp_members, function_members},
    {Py_tp_methods, function_methods},
    {0, nullptr},
};

PyType_Spec function_spec = {
    "morvane_tessary.utils.git_utils.native_function",
    sizeof(NativeFunction),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
        Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    function_slots,
};

Ref attr(PyObject* o, const char* name) { return Ref::steal(PyObject_GetAttrString(o, name)); }

// Evaluates "def NAME<signature>: pass" in a copy of the namespace and takes
// the parameter table, defaults and annotations from the function it makes.
Ref prototype(PyObject* module, const FunctionDef& def, const char* name) {
    Ref scratch = namespace_copy(module);
    if (!scratch) return Ref();
    const std::string source = std::string("def ") + name + def.signature + ": pass\n";
    Ref code = Ref::steal(Py_CompileString(source.c_str(), "<git_utils signature>", Py_file_input));
    if (!code) return Ref();
    Ref done = Ref::steal(PyEval_EvalCode(code.get(), scratch.get(), scratch.get()));
    if (!done) return Ref();
    Ref made;
    if (dict_get(scratch.get(), name, made) == 0) PyErr_Format(PyExc_SystemError, "no function %s", name);
    return made;
}

Py_ssize_t as_size(PyObject* o) { return o ? PyLong_AsSsize_t(o) : -1; }

}  // namespace

Ref create_function_type(PyObject* module) {
    return Ref::steal(PyType_FromModuleAndSpec(module, &function_spec, nullptr));
}

Ref make_function(PyObject* module, const FunctionDef& def) {
    ModuleState* st = state_of(module);
    const char* name = kNameText[index(def.name)];
    Ref proto = prototype(module, def, name);
    if (!proto) return Ref();
    Ref code = attr(proto.get(), "__code__");
    if (!code) return Ref();
    // Each step only once the one before succeeded: no call with an exception set.
    const Py_ssize_t argcount = as_size(attr(code.get(), "co_argcount").get());
    if (argcount < 0) return Ref();
    const Py_ssize_t kwonlycount = as_size(attr(code.get(), "co_kwonlyargcount").get());
    if (kwonlycount < 0) return Ref();
    if (argcount + kwonlycount > kMaxParams) {
        PyErr_Format(PyExc_SystemError, "%s takes more than %zd parameters", name, kMaxParams);
        return Ref();
    }
    Ref varnames = attr(code.get(), "co_varnames");
    Ref params = varnames ? Ref::steal(PyTuple_GetSlice(varnames.get(), 0, argcount + kwonlycount)) : Ref();
    Ref defaults = params ? attr(proto.get(), "__defaults__") : Ref();
    Ref kwdefaults = defaults ? attr(proto.get(), "__kwdefaults__") : Ref();
    Ref annotations = kwdefaults ? attr(proto.get(), "__annotations__") : Ref();
    Ref doc = annotations ? Ref::steal(PyUnicode_FromString(def.doc)) : Ref();
    if (!doc) return Ref();

    auto* f = PyObject_GC_New(NativeFunction, reinterpret_cast<PyTypeObject*>(st->function_type));
    if (f == nullptr) return Ref();
    Ref result = Ref::steal(reinterpret_cast<PyObject*>(f));
    f->vectorcall = at_boundary<function_vectorcall>;  // every body runs inside it
    f->def = &def;
    f->module = Py_NewRef(module);
    f->dict = nullptr;
    f->weaklist = nullptr;
    f->name = Py_NewRef(st->names[index(def.name)]);
    f->qualname = Py_NewRef(st->names[index(def.name)]);
    f->module_name = Py_NewRef(st->module_name);
    f->doc = doc.release();
    f->defaults = defaults.get() == Py_None ? nullptr : defaults.release();
    f->kwdefaults = kwdefaults.get() == Py_None ? nullptr : kwdefaults.release();
    f->annotations = annotations.release();
    f->params = params.release();
    f->argcount = argcount;
    f->kwonlycount = kwonlycount;
    PyObject_GC_Track(result.get());
    return result;
}

}  // namespace gu
