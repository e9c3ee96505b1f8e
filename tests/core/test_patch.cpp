#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "check.hpp"
#include "core/patch.hpp"

using namespace gu::core;

namespace {

constexpr std::int64_t big = std::numeric_limits<std::int64_t>::max();

// What the walker reports: "+++ " rests and the new starts of hunk heads,
// with the patch read in units of `Unit` (each byte widened to one).
template <class Unit>
std::vector<std::string> walk_in(std::string_view bytes) {
    const std::basic_string<Unit> patch(bytes.begin(), bytes.end());
    struct {
        std::vector<std::string> events;
        void path_line(Piece<Unit> rest) { events.push_back("path " + std::string(rest.begin(), rest.end())); }
        std::optional<std::pair<std::int64_t, std::int64_t>> header(Piece<Unit> line) {
            const std::optional<BasicHunkHeader<Unit>> h = match_hunk_header(line);
            if (!h) return std::nullopt;
            events.push_back("hunk " + std::string(h->new_start.begin(), h->new_start.end()));
            return std::pair(h->old_lines, h->new_lines);
        }
    } r;
    walk_patch(Piece<Unit>(patch), r);
    return r.events;
}

std::vector<std::string> walk(std::string_view patch) {
    std::vector<std::string> events = walk_in<char>(patch);
    if (walk_in<char16_t>(patch) != events || walk_in<char32_t>(patch) != events) events.push_back("widths differ");
    return events;
}

}  // namespace

// Values and spans at the edges of int64: the match reads each value,
// saturated, and an absent count as 1.
void test_spans_at_the_edges_of_int64() {
    CHECK(exact_digits("9223372036854775807") == big && !exact_digits("9223372036854775808"));
    const struct Row {
        std::string_view line;
        std::int64_t old_lines, start, new_lines;
        bool exact;
    } heads[] = {
        {"@@ -5 +4,2 @@", 1, 4, 2, true},
        {"@@ -1,0 +0,0 @@ f()", 0, 0, 0, true},
        {"@@ -1,9223372036854775807 +9223372036854775808 @@", big, big, 1, false},
        {"@@ -1,99999999999999999999 +1,9223372036854775808 @@", big, 1, big, false},
    };
    for (const Row& r : heads) {
        const std::optional<HunkHeader> h = match_hunk_header(r.line);
        CHECK(h && h->old_lines == r.old_lines && h->start == r.start && h->new_lines == r.new_lines &&
              h->exact == r.exact);
    }
    const std::optional<Span> last = make_span(HunkHeader{"2", "9223372036854775807", "1"});
    CHECK(last && last->start == big && last->end == big && !last->added);
    CHECK(!make_span(HunkHeader{"2", "9223372036854775807", "2"}));
    CHECK(!make_span(HunkHeader{"2", "1", "99999999999999999999"}));
}

// Walk: hunk bodies are skipped by their counts.
void test_hunk_bodies_skipped_by_their_counts() {
    const std::string patch =
        "diff --git a b\n--- a.txt\n+++ a.txt\n@@ -1,2 +1 @@\n-@@ -9 +9 @@\n-+++ fake\n+x\n"
        "\\ No newline at end of file\n@@ -5 +4,2 @@\n ctx\n+y\n+++ \"b\\tc\"\t\n@@ -0,0 +1 @@\n+\r\n";
    CHECK((walk(patch) == std::vector<std::string>{"path a.txt", "hunk 1", "hunk 4", "path \"b\\tc\"\t", "hunk 1"}));
    CHECK(walk("").empty());
    // A hunk that announces more than it has swallows what follows.
    CHECK((walk("@@ -1 +1 @@\n-a\n@@ -2 +2 @@\n+++ x\n@@ -3 +3 @@") == std::vector<std::string>{"hunk 1", "hunk 3"}));
    CHECK((walk("@@ -1 +1,99999999999999999999999 @@\n+\n+++ x\n@@ -1 +1 @@") == std::vector<std::string>{"hunk 1"}));
}
