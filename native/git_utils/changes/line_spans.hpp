// The patch parser: a zero-context patch into LineSpan records by file, and
// its helpers.
#pragma once

#include <span>
#include <string_view>

#include "git_utils/binding/function.hpp"

namespace gu {

// parse_line_spans, _span, _patch_path and _unquote.
extern const std::span<const FunctionDef> kLineSpanFunctions;

// At load: the namespace's _C_ESCAPES, made from the core's table of
// control escapes.
Ref make_c_escapes(PyObject* module, Name name);

// What parse_line_spans gives for the decoded patch, over git's own stdout
// (line ends normalised, not decoded), for a query that holds the bytes.
Ref parse_line_spans_from_git(PyObject* module, std::string_view patch);

}  // namespace gu
