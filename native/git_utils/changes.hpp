// Diffs and logs: the raw/numstat and patch parsers, their helpers, and the
// queries that run git and hand its output to them.
#pragma once

#include <string_view>

#include "git_utils/function.hpp"

namespace gu {

// At load: the namespace's _STATUS_BY_LETTER and _TWO_PATH_LETTERS, made
// from the core's table of raw status letters, and _C_ESCAPES from its
// table of control escapes.
Ref make_status_by_letter(PyObject* module, Name name);
Ref make_two_path_letters(PyObject* module, Name name);
Ref make_c_escapes(PyObject* module, Name name);

// The parsers over git's own stdout (line ends normalised, not decoded):
// what parse_file_changes, parse_commit_changes and parse_line_spans give
// for the decoded text, for a query that holds the bytes.
Ref parse_file_changes_from_git(PyObject* module, std::string_view output);
Ref parse_commit_changes_from_git(PyObject* module, std::string_view output);
Ref parse_line_spans_from_git(PyObject* module, std::string_view patch);

}  // namespace gu
