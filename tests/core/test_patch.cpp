#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "check.hpp"
#include "core/patch.hpp"
#include "core/unquote.hpp"

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
            if (hunk_counts(*h) != std::pair(h->old_lines, h->new_lines)) events.push_back("counts read twice differ");
            return hunk_counts(*h);
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

TEST_CASE("hunk heads: the groups of the anchored match") {
    const struct Row {
        std::string_view line;
        bool ok;
        std::string_view old_count, new_start, new_count;
    } rows[] = {
        {"@@ -1,2 +3,4 @@", true, "2", "3", "4"},  {"@@ -10 +12 @@ def f():", true, "", "12", ""},
        {"@@ -0,0 +1,5 @@@", true, "0", "1", "5"}, {"@@ -7,0 +6 @@", true, "0", "6", ""},
        {" @@ -1 +1 @@", false, {}, {}, {}},     {"@@ -1, +1 @@", false, {}, {}, {}},
        {"@@ -1 +1,@@", false, {}, {}, {}},      {"@@ -1 +1 @", false, {}, {}, {}},
        {"@@ - 1 +1 @@", false, {}, {}, {}},     {"@@ -1 +\xd9\xa3 @@", false, {}, {}, {}},
        {"", false, {}, {}, {}},
    };
    for (const Row& r : rows) {
        const std::optional<HunkHeader> h = match_hunk_header(r.line);
        CHECK(h.has_value() == r.ok);
        if (h && r.ok) CHECK(h->old_count == r.old_count && h->new_start == r.new_start && h->new_count == r.new_count);
    }
    CHECK(has_non_ascii("@@ -1 +\xd9\xa3 @@") && !has_non_ascii("@@ -1 +x @@"));
}

TEST_CASE("digits, counts and spans") {
    CHECK(saturating_digits("00042") == 42 && saturating_digits("9223372036854775808") == big);
    CHECK(!exact_digits("9223372036854775808") && !exact_digits("1a"));
    CHECK((hunk_counts(HunkHeader{"", "5", "0"}) == std::pair<std::int64_t, std::int64_t>{1, 0}));

    const struct Row {
        HunkHeader h;
        bool ok;
        Span span;
    } rows[] = {
        {{"0", "1", "5"}, true, {1, 5, true}},   {{"", "4", ""}, true, {4, 4, false}},
        {{"3", "0", "0"}, true, {1, 1, false}},  {{"3", "9", "0"}, true, {9, 9, false}},
        {{"2", "9223372036854775807", "1"}, true, {big, big, false}},
        {{"2", "9223372036854775807", "2"}, false, {}},  {{"2", "1", "99999999999999999999"}, false, {}},
    };
    for (const Row& r : rows) {
        const std::optional<Span> s = make_span(r.h);
        CHECK(s.has_value() == r.ok);
        if (s && r.ok) CHECK(s->start == r.span.start && s->end == r.span.end && s->added == r.span.added);
    }
}

TEST_CASE("walk: hunk bodies are skipped by their counts") {
    const std::string patch =
        "diff --git a b\n--- a.txt\n+++ a.txt\n@@ -1,2 +1 @@\n-@@ -9 +9 @@\n-+++ fake\n+x\n"
        "\\ No newline at end of file\n@@ -5 +4,2 @@\n ctx\n+y\n+++ \"b\\tc\"\t\n@@ -0,0 +1 @@\n+\r\n";
    CHECK((walk(patch) == std::vector<std::string>{"path a.txt", "hunk 1", "hunk 4", "path \"b\\tc\"\t", "hunk 1"}));
    CHECK(walk("").empty());
    // A hunk that announces more than it has swallows what follows.
    CHECK((walk("@@ -1 +1 @@\n-a\n@@ -2 +2 @@\n+++ x\n@@ -3 +3 @@") == std::vector<std::string>{"hunk 1", "hunk 3"}));
    CHECK((walk("@@ -1 +1,99999999999999999999999 @@\n+\n+++ x\n@@ -1 +1 @@") == std::vector<std::string>{"hunk 1"}));
}

TEST_CASE("patch paths") {
    const struct Row {
        std::string_view text;
        PatchPath::Kind kind;
        std::string_view name;
    } rows[] = {
        {"/dev/null", PatchPath::null, "/dev/null"},  {"/dev/null\t", PatchPath::null, "/dev/null"},
        {"a b.txt\t", PatchPath::plain, "a b.txt"},   {"a\t\t", PatchPath::plain, "a\t"},
        {"\"a\\tb\"", PatchPath::quoted, "a\\tb"},    {"\"\"\t", PatchPath::quoted, ""},
        {"\"", PatchPath::plain, "\""},               {"\"a", PatchPath::plain, "\"a"},
    };
    for (const Row& r : rows) {
        const PatchPath p = patch_path(r.text);
        CHECK(p.kind == r.kind && p.text == r.name);
    }
}

TEST_CASE("unquote: escapes to bytes") {
    const struct Row {
        std::string_view in;
        bool ok;
        std::string_view out;
    } rows[] = {
        {"\\303\\251t\\303\\251.txt", true, "\xc3\xa9t\xc3\xa9.txt"},
        {"\\a\\b\\f\\n\\r\\v\\z", true, "\a\b\f\n\r\vz"},
        {"tab\\there", true, "tab\there"},  {"\\\"q\\\\", true, "\"q\\"},
        {"\\12x", true, "12x"},              {"\\0000", true, std::string_view("\0" "0", 2)},
        {"end\\", true, "end\\"},            {"\\\\\\", true, "\\\\"},
        {"\\\xc3\xa9!", true, "\xc3\xa9!"},  {"\\\n", true, "\n"},
        {"\\777", false, ""},                {"\\400", false, ""},
    };
    for (const Row& r : rows) {
        std::string out;
        const bool ok = unquote(r.in, out);
        CHECK(ok == r.ok);
        if (ok && r.ok) CHECK(out == r.out);
    }
}
