#include "git_utils/runner/revisions.hpp"

#include "git_utils/binding/helpers.hpp"
#include "git_utils/runner/command_line.hpp"

namespace gu {

int refuse_option_like(PyObject* module, std::initializer_list<PyObject*> revisions) {
    for (PyObject* revision : revisions) {
        if (!PyUnicode_Check(revision) || PyUnicode_GET_LENGTH(revision) < 2 ||
            PyUnicode_READ_CHAR(revision, 0) != '-' || PyUnicode_READ_CHAR(revision, 1) != '-')
            continue;
        return raise_git_error(module, Ref::steal(PyUnicode_FromFormat("revision looks like an option: %R", revision)));
    }
    return 0;
}

}  // namespace gu
