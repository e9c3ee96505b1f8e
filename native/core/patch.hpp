// Zero-context patches (`git diff --no-prefix -U0 -M`): the "+++ " lines
// that name each file and the "@@ -a,b +c,d @@" heads of its hunks, found
// in one pass that skips the body lines each head announces. Read in any
// code-unit width (see tokens.hpp).
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>
#include <string_view>
#include <utility>

#include "core/tokens.hpp"

namespace gu::core {

// The groups of a hunk head. A count git left out (it omits ",1") is empty.
// The values are read with the match: each saturated at INT64_MAX, an
// absent count 1.
template <class Unit>
struct BasicHunkHeader {
    Piece<Unit> old_count, new_start, new_count;
    std::int64_t old_lines = 1, start = 0, new_lines = 1;
    bool exact = false;  // the values were read and none saturated
};
using HunkHeader = BasicHunkHeader<char>;

namespace detail {

constexpr std::int64_t int64_max = std::numeric_limits<std::int64_t>::max();

template <class Unit>
bool is_digit(Unit c) noexcept {
    return c >= Unit('0') && c <= Unit('9');
}

// Consumes the ASCII text `lit` at `pos`; false when the text differs.
template <class Unit>
bool take(Piece<Unit> line, std::size_t& pos, std::string_view lit) noexcept {
    if (line.size() - pos < lit.size()) return false;
    for (std::size_t i = 0; i < lit.size(); ++i)
        if (line[pos + i] != Unit(lit[i])) return false;
    pos += lit.size();
    return true;
}

// Eighteen decimal digits always fit in int64; only longer runs are checked.
constexpr std::size_t safe_digits = 18;

}  // namespace detail

// Matches "@@ -D[,D] +D[,D] @@" (D: ASCII digits) at the start of `line`;
// whatever follows the closing "@@" is ignored. One pass with one cursor:
// every line outside a hunk body comes here.
template <class Unit>
std::optional<BasicHunkHeader<Unit>> match_hunk_header(Piece<Unit> line) noexcept {
    const Unit* p = line.data();
    const Unit* const end = p + line.size();
    bool exact = true;
    const auto literal = [&](std::string_view lit) {
        if (static_cast<std::size_t>(end - p) < lit.size()) return false;
        for (const char c : lit)
            if (*p++ != Unit(c)) return false;
        return true;
    };
    // A run of one or more digits, and its value saturated at INT64_MAX.
    const auto digits = [&](Piece<Unit>& out, std::int64_t& value) {
        const Unit* const begin = p;
        std::int64_t v = 0;
        for (; p < end && detail::is_digit(*p); ++p) {
            const int d = static_cast<int>(*p - Unit('0'));
            if (static_cast<std::size_t>(p - begin) >= detail::safe_digits && v > (detail::int64_max - d) / 10) {
                v = detail::int64_max;  // stays so once saturated
                exact = false;
            } else {
                v = v * 10 + d;
            }
        }
        out = Piece<Unit>(begin, static_cast<std::size_t>(p - begin));
        value = v;
        return p > begin;
    };
    // An optional ",digits": a comma without digits after it fails the
    // match, since only a space may follow a number there.
    const auto count = [&](Piece<Unit>& out, std::int64_t& value) {
        if (p < end && *p == Unit(',')) {
            ++p;
            return digits(out, value);
        }
        return true;
    };
    BasicHunkHeader<Unit> h;
    Piece<Unit> old_start;
    std::int64_t ignored = 0;
    if (!literal("@@ -") || !digits(old_start, ignored) || !count(h.old_count, h.old_lines) || !literal(" +") ||
        !digits(h.new_start, h.start) || !count(h.new_count, h.new_lines) || !literal(" @@"))
        return std::nullopt;
    h.exact = exact;
    return h;
}

inline std::optional<HunkHeader> match_hunk_header(std::string_view line) noexcept {
    return match_hunk_header<char>(line);
}

// ASCII digits to a number; nullopt when the value does not fit in int64
// or a unit is not a digit. The empty text is 0.
template <class Unit>
std::optional<std::int64_t> exact_digits(Piece<Unit> digits) noexcept {
    std::int64_t v = 0;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        const Unit c = digits[i];
        if (!detail::is_digit(c)) return std::nullopt;
        const int d = static_cast<int>(c - Unit('0'));
        if (i >= detail::safe_digits && v > (detail::int64_max - d) / 10) return std::nullopt;
        v = v * 10 + d;
    }
    return v;
}

inline std::optional<std::int64_t> exact_digits(std::string_view digits) noexcept { return exact_digits<char>(digits); }

// The lines a hunk touches in the newer file. A hunk that only removes
// lines marks the point where they were (at least line 1).
struct Span {
    std::int64_t start, end;
    bool added;  // the hunk removes nothing: its lines are all new
};

// nullopt when a value or the end does not fit in int64.
std::optional<Span> make_span(std::int64_t start, std::int64_t new_count, std::int64_t old_count) noexcept;

// The span of a head, from its groups.
template <class Unit>
std::optional<Span> make_span(const BasicHunkHeader<Unit>& h) noexcept {
    const std::optional<std::int64_t> start = exact_digits(h.new_start);
    const std::optional<std::int64_t> new_count = h.new_count.empty() ? 1 : exact_digits(h.new_count);
    const std::optional<std::int64_t> old_count = h.old_count.empty() ? 1 : exact_digits(h.old_count);
    if (!start || !new_count || !old_count) return std::nullopt;
    return make_span(*start, *new_count, *old_count);
}

// The file named by a "+++ " line, after the four units of that prefix.
template <class Unit>
struct BasicPatchPath {
    enum Kind { null, plain, quoted } kind;
    Piece<Unit> text;  // for quoted: what lies between the quotes, still escaped
};
using PatchPath = BasicPatchPath<char>;

template <class Unit>
BasicPatchPath<Unit> patch_path(Piece<Unit> text) noexcept {
    using P = BasicPatchPath<Unit>;
    if (!text.empty() && text.back() == Unit('\t')) text.remove_suffix(1);
    std::size_t pos = 0;
    if (detail::take(text, pos, "/dev/null") && pos == text.size()) return {P::null, text};
    if (text.size() >= 2 && text.front() == Unit('"') && text.back() == Unit('"'))
        return {P::quoted, text.substr(1, text.size() - 2)};
    return {P::plain, text};
}

inline PatchPath patch_path(std::string_view text) noexcept { return patch_path<char>(text); }

// Walks the lines of `patch` (cut at every '\n' only) and calls
//   h.path_line(Piece rest)  for a "+++ " line outside a hunk,
//   h.header(Piece line) -> std::optional<std::pair<int64_t, int64_t>>
// for every other line outside a hunk. When header returns the head's old
// and new counts, that many '-' and '+' lines (' ' lines count for both)
// belong to the hunk and are not looked at again.
template <class Unit, class Handler>
void walk_patch(Piece<Unit> patch, Handler& h) {
    std::int64_t old_left = 0, new_left = 0;
    const Unit* pos = patch.data();
    const Unit* const end = pos + patch.size();
    UnitFinder<Unit> newlines(pos, patch.size(), Unit('\n'));
    for (;;) {
        const Unit* nl = newlines.next();
        if (old_left > 0 || new_left > 0) {
            // A line of the hunk: counted without branching on its kind, which
            // follows no pattern a predictor could learn. A remark such as
            // "\ No newline at end of file" counts for neither side.
            const Unit c = pos < end ? *pos : Unit(0);
            old_left -= (c == Unit('-')) | (c == Unit(' '));
            new_left -= (c == Unit('+')) | (c == Unit(' '));
        } else {
            const Piece<Unit> line(pos, static_cast<std::size_t>((nl ? nl : end) - pos));
            std::size_t at = 0;
            if (detail::take(line, at, "+++ ")) {
                h.path_line(line.substr(4));
            } else if (const std::optional<std::pair<std::int64_t, std::int64_t>> counts = h.header(line)) {
                // Negative counts would mean nothing open; clamping them keeps
                // the decrements above from ever overflowing.
                old_left = counts->first > 0 ? counts->first : 0;
                new_left = counts->second > 0 ? counts->second : 0;
            }
        }
        if (nl == nullptr) break;
        pos = nl + 1;
    }
}

template <class Handler>
void walk_patch(std::string_view patch, Handler& h) {
    walk_patch<char>(patch, h);
}

}  // namespace gu::core
