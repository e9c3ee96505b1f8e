// Zero-context patches (`git diff --no-prefix -U0 -M`): the "+++ " lines
// that name each file and the "@@ -a,b +c,d @@" heads of its hunks, found
// in one pass that skips the body lines each head announces.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

namespace gu::core {

// The groups of a hunk head. A count git left out (it omits ",1") is empty.
struct HunkHeader {
    std::string_view old_count, new_start, new_count;
};

// Matches "@@ -D[,D] +D[,D] @@" (D: ASCII digits) at the start of `line`;
// whatever follows the closing "@@" is ignored.
std::optional<HunkHeader> match_hunk_header(std::string_view line) noexcept;

// True when `line` holds a byte outside ASCII. A line that fails the ASCII
// match may still be a head written with another script's digits.
bool has_non_ascii(std::string_view line) noexcept;

// ASCII digits to a number; nullopt when the value does not fit in int64
// or a byte is not a digit. The empty text is 0.
std::optional<std::int64_t> exact_digits(std::string_view digits) noexcept;

// ASCII digits to a number, INT64_MAX when the value does not fit.
std::int64_t saturating_digits(std::string_view digits) noexcept;

// The old and new line counts of a head (an absent count is 1), saturated.
std::pair<std::int64_t, std::int64_t> hunk_counts(const HunkHeader& h) noexcept;

// The lines a hunk touches in the newer file. A hunk that only removes
// lines marks the point where they were (at least line 1).
struct Span {
    std::int64_t start, end;
    bool added;  // the hunk removes nothing: its lines are all new
};

// nullopt when a value or the end does not fit in int64.
std::optional<Span> make_span(std::int64_t start, std::int64_t new_count, std::int64_t old_count) noexcept;
std::optional<Span> make_span(const HunkHeader& h) noexcept;

// The file named by a "+++ " line, after the four bytes of that prefix.
struct PatchPath {
    enum Kind { null, plain, quoted } kind;
    std::string_view text;  // for quoted: what lies between the quotes, still escaped
};

PatchPath patch_path(std::string_view text) noexcept;

// Walks the lines of `patch` (cut at every '\n' only) and calls
//   h.path_line(std::string_view rest)  for a "+++ " line outside a hunk,
//   h.header(std::string_view line) -> std::optional<std::pair<int64_t, int64_t>>
// for every other line outside a hunk. When header returns the head's old
// and new counts, that many '-' and '+' lines (' ' lines count for both)
// belong to the hunk and are not looked at again.
template <class Handler>
void walk_patch(std::string_view patch, Handler& h) {
    std::int64_t old_left = 0, new_left = 0;
    std::size_t pos = 0;
    for (;;) {
        const std::size_t nl = patch.find('\n', pos);
        const std::size_t end = nl == std::string_view::npos ? patch.size() : nl;
        const std::string_view line = patch.substr(pos, end - pos);
        if (old_left > 0 || new_left > 0) {
            const char c = line.empty() ? '\0' : line[0];
            if (c == '-') {
                --old_left;
            } else if (c == '+') {
                --new_left;
            } else if (c == ' ') {
                --old_left;
                --new_left;
            }  // else a remark such as "\ No newline at end of file"
        } else if (line.starts_with("+++ ")) {
            h.path_line(line.substr(4));
        } else if (const std::optional<std::pair<std::int64_t, std::int64_t>> counts = h.header(line)) {
            // Negative counts would mean nothing open; clamping them keeps
            // the decrements below from ever overflowing.
            old_left = counts->first > 0 ? counts->first : 0;
            new_left = counts->second > 0 ? counts->second : 0;
        }
        if (nl == std::string_view::npos) break;
        pos = nl + 1;
    }
}

}  // namespace gu::core
