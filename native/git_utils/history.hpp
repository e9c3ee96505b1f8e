// History over time: time specs, the authors of a period, commit counting
// and the commit at a moment.
#pragma once

#include "git_utils/function.hpp"

namespace gu {

extern const FunctionDef kParseTimeSpec;
extern const FunctionDef kGetAuthorsForPeriod;
extern const FunctionDef kCountCommits;
extern const FunctionDef kCommitBefore;

}  // namespace gu
