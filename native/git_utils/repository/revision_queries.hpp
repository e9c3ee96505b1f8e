// The lenient queries about branches and revisions: each runs git through
// the namespace's runner and answers None, False or "main" when git fails.
#pragma once

#include <span>

#include "git_utils/binding/function.hpp"

namespace gu {

// resolve_display_branch, get_head_commit, get_default_branch, branch_exists
// and resolve_commit.
extern const std::span<const FunctionDef> kRevisionQueryFunctions;

}  // namespace gu
