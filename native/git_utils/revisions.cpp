#include "git_utils/revisions.hpp"

#include "git_utils/state.hpp"

namespace gu {

bool refuse_option_like(PyObject* module, std::initializer_list<PyObject*> revisions) {
    for (PyObject* revision : revisions) {
        if (!PyUnicode_Check(revision) || PyUnicode_GET_LENGTH(revision) < 2 ||
            PyUnicode_READ_CHAR(revision, 0) != '-' || PyUnicode_READ_CHAR(revision, 1) != '-')
            continue;
        Ref message = Ref::steal(PyUnicode_FromFormat("revision looks like an option: %R", revision));
        if (!message) return false;
        Ref error_class = lookup(module, Name::GitError);
        if (!error_class) return false;
        Ref error = Ref::steal(PyObject_CallOneArg(error_class.get(), message.get()));
        if (!error) return false;
        if (!PyExceptionInstance_Check(error.get())) {
            PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
            return false;
        }
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
        return false;
    }
    return true;
}

}  // namespace gu
