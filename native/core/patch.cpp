#include "core/patch.hpp"

#include <limits>

namespace gu::core {

namespace {

constexpr std::int64_t int64_max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t int64_min = std::numeric_limits<std::int64_t>::min();

bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

// Consumes `lit` at `pos`; false when the text differs.
bool take(std::string_view line, std::size_t& pos, std::string_view lit) noexcept {
    if (line.substr(pos, lit.size()) != lit) return false;
    pos += lit.size();
    return true;
}

// Consumes a run of one or more digits at `pos`.
bool take_digits(std::string_view line, std::size_t& pos, std::string_view& out) noexcept {
    const std::size_t begin = pos;
    while (pos < line.size() && is_digit(line[pos])) ++pos;
    out = line.substr(begin, pos - begin);
    return pos > begin;
}

// An optional ",digits": a comma without digits after it fails the match,
// since only a space may follow a number there.
bool take_count(std::string_view line, std::size_t& pos, std::string_view& out) noexcept {
    out = {};
    if (pos < line.size() && line[pos] == ',') {
        ++pos;
        return take_digits(line, pos, out);
    }
    return true;
}

}  // namespace

std::optional<HunkHeader> match_hunk_header(std::string_view line) noexcept {
    HunkHeader h;
    std::string_view old_start;
    std::size_t pos = 0;
    if (!take(line, pos, "@@ -") || !take_digits(line, pos, old_start) || !take_count(line, pos, h.old_count) ||
        !take(line, pos, " +") || !take_digits(line, pos, h.new_start) || !take_count(line, pos, h.new_count) ||
        !take(line, pos, " @@"))
        return std::nullopt;
    return h;
}

bool has_non_ascii(std::string_view line) noexcept {
    for (const char c : line)
        if (static_cast<unsigned char>(c) >= 0x80) return true;
    return false;
}

std::optional<std::int64_t> exact_digits(std::string_view digits) noexcept {
    std::int64_t v = 0;
    for (const char c : digits) {
        if (!is_digit(c)) return std::nullopt;
        const int d = c - '0';
        if (v > (int64_max - d) / 10) return std::nullopt;
        v = v * 10 + d;
    }
    return v;
}

std::int64_t saturating_digits(std::string_view digits) noexcept {
    return exact_digits(digits).value_or(int64_max);
}

std::pair<std::int64_t, std::int64_t> hunk_counts(const HunkHeader& h) noexcept {
    const auto count = [](std::string_view d) { return d.empty() ? std::int64_t{1} : saturating_digits(d); };
    return {count(h.old_count), count(h.new_count)};
}

std::optional<Span> make_span(std::int64_t start, std::int64_t new_count, std::int64_t old_count) noexcept {
    if (new_count == 0) {
        const std::int64_t at = start > 1 ? start : 1;
        return Span{at, at, false};
    }
    // end = start + (new_count - 1), refused where a step would overflow;
    // the caller then works it out with unbounded integers.
    if (new_count == int64_min) return std::nullopt;
    const std::int64_t length = new_count - 1;
    if ((length > 0 && start > int64_max - length) || (length < 0 && start < int64_min - length))
        return std::nullopt;
    return Span{start, start + length, old_count == 0};
}

std::optional<Span> make_span(const HunkHeader& h) noexcept {
    const std::optional<std::int64_t> start = exact_digits(h.new_start);
    const std::optional<std::int64_t> new_count = h.new_count.empty() ? 1 : exact_digits(h.new_count);
    const std::optional<std::int64_t> old_count = h.old_count.empty() ? 1 : exact_digits(h.old_count);
    if (!start || !new_count || !old_count) return std::nullopt;
    return make_span(*start, *new_count, *old_count);
}

PatchPath patch_path(std::string_view text) noexcept {
    if (!text.empty() && text.back() == '\t') text.remove_suffix(1);
    if (text == "/dev/null") return {PatchPath::null, text};
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
        return {PatchPath::quoted, text.substr(1, text.size() - 2)};
    return {PatchPath::plain, text};
}

}  // namespace gu::core
