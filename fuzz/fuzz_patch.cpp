// walk_patch with a handler built on match_hunk_header, which is checked
// against std::regex; make_span and patch_path are checked on what it finds,
// and the values read with the match against those of the groups. The same
// text read as 2- and 4-byte units (each byte widened to one) must give the
// same walk.
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/patch.hpp"

using namespace gu::core;

namespace {

const std::regex& head_regex() {
    static const std::regex re(R"(@@ -\d+(?:,(\d+))? \+(\d+)(?:,(\d+))? @@)");
    return re;
}

struct Checker {
    std::string_view patch;
    std::size_t calls = 0;

    void path_line(std::string_view rest) {
        ++calls;
        events.push_back(-1);
        const PatchPath p = patch_path(rest);
        if (p.text.size() > rest.size() || (p.kind == PatchPath::quoted && rest.size() < 2)) std::abort();
    }

    std::optional<std::pair<std::int64_t, std::int64_t>> header(std::string_view line) {
        ++calls;
        if (line.find('\n') != std::string_view::npos) std::abort();
        const std::optional<HunkHeader> h = match_hunk_header(line);
        // The regex engine recurses per character: keep it to short lines.
        if (line.size() < 256) {
            std::match_results<std::string_view::const_iterator> m;
            const bool re =
                std::regex_search(line.begin(), line.end(), m, head_regex(), std::regex_constants::match_continuous);
            if (re != h.has_value()) std::abort();
            if (re && (m.str(1) != h->old_count || m.str(2) != h->new_start || m.str(3) != h->new_count)) std::abort();
        }
        if (!h) return std::nullopt;
        if (const std::optional<Span> s = make_span(*h); s && s->end < s->start) std::abort();
        // The values read with the match against the groups read again: an
        // absent count is 1, a value past int64 saturates.
        const auto value = [](std::string_view digits, std::int64_t absent) {
            return digits.empty() ? absent : exact_digits(digits).value_or(std::numeric_limits<std::int64_t>::max());
        };
        if (value(h->old_count, 1) != h->old_lines || value(h->new_start, 0) != h->start ||
            value(h->new_count, 1) != h->new_lines)
            std::abort();
        if (h->exact && !make_span(*h) != !make_span(h->start, h->new_lines, h->old_lines)) std::abort();
        events.push_back(h->start);
        return std::pair(h->old_lines, h->new_lines);
    }

    std::vector<std::int64_t> events;  // the start of each head matched
};

// The heads a walk over the text in units of `Unit` matches, in order.
template <class Unit>
std::vector<std::int64_t> walk_in(std::string_view bytes) {
    const std::basic_string<Unit> wide(bytes.begin(), bytes.end());
    struct {
        std::vector<std::int64_t> events;
        void path_line(Piece<Unit>) { events.push_back(-1); }
        std::optional<std::pair<std::int64_t, std::int64_t>> header(Piece<Unit> line) {
            const std::optional<BasicHunkHeader<Unit>> h = match_hunk_header(line);
            if (!h) return std::nullopt;
            events.push_back(h->start);
            return std::pair(h->old_lines, h->new_lines);
        }
    } w;
    walk_patch(Piece<Unit>(wide), w);
    return w.events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Checker c{text, 0, {}};
    walk_patch(text, c);
    std::size_t lines = 1;
    for (const char ch : text) lines += ch == '\n';
    if (c.calls > lines) std::abort();
    if (walk_in<char16_t>(text) != c.events || walk_in<char32_t>(text) != c.events) std::abort();
    return 0;
}
