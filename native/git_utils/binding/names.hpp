// Every name of the module's namespace, in the order in which loading binds
// them. The order is the namespace's order; the index is how module state
// remembers what was bound at load.
#pragma once

#include <cstddef>

// Rows of names as the namespace reads, kept as written.
// clang-format off
#define GU_NAMESPACE(X)                                                                      \
    X(logging) X(re) X(subprocess) X(Sequence) X(dataclass) X(datetime) X(timedelta)      \
    X(Path) X(Any) X(get_subprocess_hidden_kwargs) X(logger)                               \
    X(TIME_SPEC_FORMS) X(_RELATIVE_SPEC) X(_SPEC_UNITS) X(_STATUS_BY_LETTER)               \
    X(_TWO_PATH_LETTERS) X(_COMMIT_START) X(_PATCH_OPTIONS) X(_HUNK_HEADER) X(_C_ESCAPE)   \
    X(_C_ESCAPES) X(GitError) X(FileChange) X(CommitChanges) X(LineSpan)                   \
    X(find_git_root) X(find_repo_root) X(resolve_display_branch) X(normalize_branch_name) \
    X(parse_time_spec) X(sanitize_branch_name) X(wiki_root) X(wiki_directory)             \
    X(run_git_command) X(get_head_commit) X(get_default_branch) X(branch_exists)          \
    X(get_authors_for_period) X(_MAX_PATHSPEC_CHARS) X(resolve_commit) X(count_commits)   \
    X(commit_before) X(diff_file_changes) X(log_commit_changes) X(diff_line_spans)        \
    X(parse_file_changes) X(parse_commit_changes) X(parse_line_spans) X(_span)            \
    X(_file_changes) X(_line_count) X(_patch_path) X(_unquote) X(_path_batches)           \
    X(_git_output)
// clang-format on

namespace gu {

enum class Name : std::size_t {
#define GU_NAME_ENUM(n) n,
    GU_NAMESPACE(GU_NAME_ENUM)
#undef GU_NAME_ENUM
        count_
};

inline constexpr std::size_t kNameCount = static_cast<std::size_t>(Name::count_);

inline constexpr const char* kNameText[kNameCount] = {
#define GU_NAME_TEXT(n) #n,
    GU_NAMESPACE(GU_NAME_TEXT)
#undef GU_NAME_TEXT
};

constexpr std::size_t index(Name n) { return static_cast<std::size_t>(n); }

}  // namespace gu
