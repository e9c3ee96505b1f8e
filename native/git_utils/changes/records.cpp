#include "git_utils/changes/records.hpp"

#include <array>

#include "git_utils/binding/helpers.hpp"

namespace gu {
namespace {

struct Field {
    const char* name;
    const char* annotation;  // Python expression, evaluated in the namespace
    bool defaults_to_none;
};

struct RecordSpec {
    Record kind;
    Name name;
    const char* doc;
    std::array<Field, 5> fields;
    std::size_t field_count;
};

const RecordSpec kRecords[] = {
    {Record::file_change,
     Name::FileChange,
     "One file of a diff.\n\n"
     "path is the file's path on the newer side, relative to the repository root;\n"
     "status is one of \"added\", \"modified\", \"deleted\", \"renamed\", \"copied\";\n"
     "additions and deletions count its added and deleted lines (0 for a binary\n"
     "file); old_path is the older side's path of a rename or copy, else None.",
     {{{"path", "str", false},
       {"status", "str", false},
       {"additions", "int", false},
       {"deletions", "int", false},
       {"old_path", "str | None", true}}},
     5},
    {Record::commit_changes,
     Name::CommitChanges,
     "One commit of a log: its committer time in seconds since the epoch and\n"
     "the files it changed, in git's order (empty for a merge commit).",
     {{{"timestamp", "int", false}, {"files", "tuple[FileChange, ...]", false}}},
     2},
    {Record::line_span,
     Name::LineSpan,
     "Lines start to end (1-based, inclusive) of a file's newer side that a\n"
     "diff touched; added is True when the span holds new lines only, none of\n"
     "them replacing an old line.",
     {{{"start", "int", false}, {"end", "int", false}, {"added", "bool", false}}},
     3},
};

// type(name, (), namespace), then dataclass(frozen=True).
Ref build_class(PyObject* module, const RecordSpec& spec, PyObject* dataclass) {
    ModuleState* st = state_of(module);
    PyObject* name = st->names[index(spec.name)];
    Ref ns = Ref::steal(PyDict_New());
    Ref annotations = Ref::steal(PyDict_New());
    Ref fields = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(spec.field_count)));
    if (!ns || !annotations || !fields) return Ref();
    if (PyDict_SetItemString(ns.get(), "__module__", st->module_name) < 0 ||
        PyDict_SetItemString(ns.get(), "__qualname__", name) < 0)
        return Ref();
    Ref doc = Ref::steal(PyUnicode_FromString(spec.doc));
    if (!doc || PyDict_SetItemString(ns.get(), "__doc__", doc.get()) < 0) return Ref();
    for (std::size_t i = 0; i < spec.field_count; ++i) {
        const Field& field = spec.fields[i];
        PyObject* field_name = PyUnicode_InternFromString(field.name);
        if (field_name == nullptr) return Ref();
        PyTuple_SET_ITEM(fields.get(), static_cast<Py_ssize_t>(i), field_name);
        Ref ann = evaluate(module, field.annotation);
        if (!ann || PyDict_SetItem(annotations.get(), field_name, ann.get()) < 0) return Ref();
        if (field.defaults_to_none && PyDict_SetItem(ns.get(), field_name, Py_None) < 0) return Ref();
    }
    if (PyDict_SetItemString(ns.get(), "__annotations__", annotations.get()) < 0) return Ref();
    Ref bases = Ref::steal(PyTuple_New(0));
    if (!bases) return Ref();
    Ref cls = Ref::steal(
        PyObject_CallFunctionObjArgs(reinterpret_cast<PyObject*>(&PyType_Type), name, bases.get(), ns.get(), nullptr));
    if (!cls) return Ref();
    Ref kwargs = Ref::steal(Py_BuildValue("{s:O}", "frozen", Py_True));
    Ref empty = Ref::steal(PyTuple_New(0));
    if (!kwargs || !empty) return Ref();
    Ref decorator = Ref::steal(PyObject_Call(dataclass, empty.get(), kwargs.get()));
    if (!decorator) return Ref();
    Ref result = call(decorator.get(), cls.get());
    if (!result) return Ref();
    Py_XSETREF(st->record_fields[static_cast<int>(spec.kind)], fields.release());
    return result;
}

// The record spec of the class bound under `name`.
const RecordSpec& spec_named(Name name) {
    for (const RecordSpec& spec : kRecords)
        if (spec.name == name) return spec;
    return kRecords[0];  // every caller passes a record's name
}

Ref call_record(const ModuleState* st, Record kind, PyObject* cls, PyObject* const* values) {
    PyObject* fields = st->record_fields[static_cast<int>(kind)];
    if (kind == Record::file_change) {
        PyObject* call_args[] = {values[0], values[1], values[2], values[3], values[4]};
        Ref kwnames = Ref::steal(PyTuple_Pack(1, PyTuple_GET_ITEM(fields, 4)));
        if (!kwnames) return Ref();
        return Ref::steal(PyObject_Vectorcall(cls, call_args, 4, kwnames.get()));
    }
    return Ref::steal(PyObject_Vectorcall(cls, values, static_cast<size_t>(PyTuple_GET_SIZE(fields)), nullptr));
}

}  // namespace

Ref make_record_class(PyObject* module, Name name) {
    const RecordSpec& spec = spec_named(name);
    PyObject* dict = PyModule_GetDict(module);
    // dataclass runs generated code with the namespace as its globals, which
    // leaves __builtins__ behind; the module's namespace does not carry it.
    Ref builtins;
    const int had_builtins = dict_get(dict, "__builtins__", builtins);
    if (had_builtins < 0) return Ref();
    Ref dataclass = lookup(module, Name::dataclass);
    Ref cls = dataclass ? build_class(module, spec, dataclass.get()) : Ref();
    if (!cls) return Ref();
    if (!had_builtins) {
        const int left = dict_get(dict, "__builtins__", builtins);
        if (left < 0 || (left && PyDict_DelItemString(dict, "__builtins__") < 0)) return Ref();
    }
    return cls;
}

int record_guard(PyObject* module, GuardBuilder& guard, Record kind) {
    PyObject* cls = state_of(module)->originals[index(kRecords[static_cast<int>(kind)].name)];
    if (!PyType_Check(cls)) return 0;
    Ref dict = class_dict_of(cls);
    Ref init;
    if (!dict || dict_get(dict.get(), "__init__", init) < 0) return -1;
    // The __init__ and __new__ the class had when loading made it (a host may
    // patch either in place): object.__new__, and the generated __init__.
    guard.subject(cls);
    guard.entry_in_class(cls, "__init__", init.get());
    guard.absent_in_class(cls, "__new__");
    return guard.ok() ? 0 : -1;
}

// What the generated __init__ does: object.__setattr__ of each field in
// declared order, into the instance dict the class's instances share keys
// through. The instance comes from the class's tp_alloc, as object.__new__
// makes it, without the argument tuple and the checks that __new__ makes for
// arguments the class never gets here.
namespace {

Ref fill_record(const ModuleState* st, Record kind, PyObject* cls, PyObject* const* values) {
    PyObject* fields = st->record_fields[static_cast<int>(kind)];
    const Py_ssize_t n = PyTuple_GET_SIZE(fields);
    PyTypeObject* type = reinterpret_cast<PyTypeObject*>(cls);
#if PY_VERSION_HEX >= 0x030B0000 && PY_VERSION_HEX < 0x030D0000
    // Here object.__new__ sets up the instance's inline values after tp_alloc.
    Ref empty = Ref::steal(PyTuple_New(0));
    if (!empty) return Ref();
    Ref obj = Ref::steal(PyBaseObject_Type.tp_new(type, empty.get(), nullptr));
#else
    Ref obj = Ref::steal(type->tp_alloc(type, 0));
#endif
    if (!obj) return Ref();
#if PY_VERSION_HEX < 0x030B0000
    // Setting the items of the instance dict directly spares the attribute
    // protocol (descriptor lookups along the class's MRO) per field; the dict
    // is the one attribute assignment would have made, with the class's
    // shared keys.
    Ref dict = Ref::steal(PyObject_GenericGetDict(obj.get(), nullptr));
    if (!dict) return Ref();
    for (Py_ssize_t i = 0; i < n; ++i)
        if (PyDict_SetItem(dict.get(), PyTuple_GET_ITEM(fields, i), values[i]) < 0) return Ref();
#else
    // Inline values: attribute assignment is the fastest public way in.
    for (Py_ssize_t i = 0; i < n; ++i)
        if (PyObject_GenericSetAttr(obj.get(), PyTuple_GET_ITEM(fields, i), values[i]) < 0) return Ref();
#endif
    return obj;
}

}  // namespace

RecordMaker::RecordMaker(PyObject* module, Record kind)
    : st_(state_of(module)), kind_(kind), cls_(module, kRecords[static_cast<int>(kind)].name) {}

bool RecordMaker::fills() const {
    return settled_ ? fills_settled_ : cls_.as_loaded() && allowed(st_, fast_path_of(kind_));
}

bool RecordMaker::settle() {
    fills_settled_ = fills();
    settled_ = true;
    return fills_settled_;
}

Ref RecordMaker::make(PyObject* const* values) {
    PyObject* cls = cls_.get();
    if (cls == nullptr) return Ref();
    return fills() ? fill_record(st_, kind_, cls, values) : call_record(st_, kind_, cls, values);
}

}  // namespace gu
