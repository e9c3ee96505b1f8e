// The short and directory forms of branch names, and the wiki paths that
// hang below the repository root, one directory per branch.
#pragma once

#include <span>

#include "git_utils/binding/function.hpp"

namespace gu {

// normalize_branch_name, sanitize_branch_name, wiki_root and wiki_directory.
extern const std::span<const FunctionDef> kBranchNameFunctions;

}  // namespace gu
