// The raw/numstat parsers: git's NUL-separated records of a diff or a log
// into FileChange and CommitChanges records, and their helpers.
#pragma once

#include <span>
#include <string_view>

#include "git_utils/binding/function.hpp"

namespace gu {

// parse_file_changes, parse_commit_changes, _file_changes and _line_count.
extern const std::span<const FunctionDef> kFileChangeFunctions;

// At load: the namespace's _STATUS_BY_LETTER and _TWO_PATH_LETTERS, made
// from the core's table of raw status letters.
Ref make_status_by_letter(PyObject* module, Name name);
Ref make_two_path_letters(PyObject* module, Name name);

// The parsers over git's own stdout (line ends normalised, not decoded):
// what parse_file_changes and parse_commit_changes give for the decoded
// text, for a query that holds the bytes.
Ref parse_file_changes_from_git(PyObject* module, std::string_view output);
Ref parse_commit_changes_from_git(PyObject* module, std::string_view output);

}  // namespace gu
