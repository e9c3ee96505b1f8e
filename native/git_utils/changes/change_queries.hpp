// The strict queries of diffs and logs: they assemble git's options, run git
// and hand its output to the parsers; the line-span query in batches of paths.
#pragma once

#include <span>

#include "git_utils/binding/function.hpp"

namespace gu {

// diff_file_changes, log_commit_changes, diff_line_spans and _path_batches.
extern const std::span<const FunctionDef> kChangeQueryFunctions;

}  // namespace gu
