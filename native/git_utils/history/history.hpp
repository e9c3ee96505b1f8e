// History over time: the authors of a period, commit counting and the
// commit at a moment (time specs have a file of their own).
#pragma once

#include <span>

#include "git_utils/binding/function.hpp"

namespace gu {

// get_authors_for_period, count_commits and commit_before.
extern const std::span<const FunctionDef> kHistoryFunctions;

}  // namespace gu
