// Diffs and logs: the raw/numstat and patch parsers, their helpers, and the
// queries that run git and hand its output to them.
#pragma once

#include "git_utils/function.hpp"

namespace gu {

extern const FunctionDef kDiffFileChanges;
extern const FunctionDef kLogCommitChanges;
extern const FunctionDef kDiffLineSpans;
extern const FunctionDef kParseFileChanges;
extern const FunctionDef kParseCommitChanges;
extern const FunctionDef kParseLineSpans;
extern const FunctionDef kSpan;
extern const FunctionDef kFileChanges;
extern const FunctionDef kLineCount;
extern const FunctionDef kPatchPath;
extern const FunctionDef kUnquote;
extern const FunctionDef kPathBatches;

}  // namespace gu
