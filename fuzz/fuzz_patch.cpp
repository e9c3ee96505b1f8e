// walk_patch with a handler built on match_hunk_header, which is checked
// against std::regex; make_span and patch_path are checked on what it finds.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <utility>

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
            const bool re = std::regex_search(line.begin(), line.end(), m, head_regex(),
                                              std::regex_constants::match_continuous);
            if (re != h.has_value()) std::abort();
            if (re && (m.str(1) != h->old_count || m.str(2) != h->new_start || m.str(3) != h->new_count))
                std::abort();
        }
        if (!h) return std::nullopt;
        if (const std::optional<Span> s = make_span(*h); s && s->end < s->start) std::abort();
        return hunk_counts(*h);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Checker c{text};
    walk_patch(text, c);
    std::size_t lines = 1;
    for (const char ch : text) lines += ch == '\n';
    if (c.calls > lines) std::abort();
    return 0;
}
