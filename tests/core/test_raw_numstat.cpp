#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "check.hpp"
#include "core/raw_numstat.hpp"

using namespace gu::core;
using S = Status;

namespace {

// Joins tokens with NUL, as git -z prints them.
std::string z(std::initializer_list<std::string_view> tokens) {
    std::string out;
    for (const std::string_view& t : tokens) {
        if (&t != tokens.begin()) out.push_back('\0');
        out.append(t);
    }
    return out;
}

struct Want {
    std::string_view path;
    Status status;
    const char* old_path;  // nullptr: none
    std::string_view added, deleted;
    bool has_counts;
};

bool same(const std::vector<FileRecord>& got, const std::vector<Want>& want) {
    if (got.size() != want.size()) return false;
    for (std::size_t i = 0; i < got.size(); ++i) {
        const FileRecord& r = got[i];
        const Want& w = want[i];
        const bool old_ok = w.old_path ? r.old_path == std::string_view(w.old_path) : !r.old_path;
        if (r.path != w.path || r.status != w.status || !old_ok || r.has_counts != w.has_counts ||
            r.added != w.added || r.deleted != w.deleted)
            return false;
    }
    return true;
}

}  // namespace

TEST_CASE("token stream keeps every piece and reads empty past the end") {
    TokenStream s{std::string_view("a\0\0b\0", 5)};
    std::vector<std::string_view> got;
    while (!s.done()) got.push_back(s.next());
    CHECK((got == std::vector<std::string_view>{"a", "", "b", ""}));
    CHECK(s.next().empty());
    TokenStream empty{std::string_view()};
    CHECK(!empty.done() && empty.next().empty() && empty.done());
    CHECK(TokenStream(TokenRun{}).done());
}

TEST_CASE("file records") {
    const std::string h = ":1 2 a b ";
    const struct Row {
        const char* name;
        std::string out;
        std::vector<Want> want;
    } rows[] = {
        {"every kind",
         z({":100644 100644 aaaaaaa bbbbbbb M", "src/a.py", ":000000 100644 0000000 ccccccc A", "docs/new.md",
            ":100644 100644 ddddddd eeeeeee R087", "old/name.py", "new/name.py", ":100644 000000 fffffff 0000000 D",
            "gone.txt", ":100644 100644 abcdefa bcdefab M", "logo.png", "3\t1\tsrc/a.py", "10\t0\tdocs/new.md",
            "2\t2\t", "old/name.py", "new/name.py", "0\t7\tgone.txt", "-\t-\tlogo.png", ""}),
         {{"src/a.py", S::modified, nullptr, "3", "1", true},
          {"docs/new.md", S::added, nullptr, "10", "0", true},
          {"new/name.py", S::renamed, "old/name.py", "2", "2", true},
          {"gone.txt", S::deleted, nullptr, "0", "7", true},
          {"logo.png", S::modified, nullptr, "-", "-", true}}},
        {"empty output", "", {}},
        {"numstat only", z({"1\t2\ta", "3\t4\tb", ""}), {}},
        {"raw without numstat", z({h + "M", "a", ""}), {{"a", S::modified, nullptr, "", "", false}}},
        {"copy with score", z({h + "C075", "x", "y"}), {{"y", S::copied, "x", "", "", false}}},
        {"rename R100", z({h + "R100", "x", "y", "1\t1\t", "x", "y"}), {{"y", S::renamed, "x", "1", "1", true}}},
        {"T, U, X, non-ASCII and no letter are changes",
         z({h + "T", "t", h + "U", "u", h + "X", "x", h + "\xc3\xa9", "e", h, "n"}),
         {{"t", S::modified, nullptr, "", "", false},
          {"u", S::modified, nullptr, "", "", false},
          {"x", S::modified, nullptr, "", "", false},
          {"e", S::modified, nullptr, "", "", false},
          {"n", S::modified, nullptr, "", "", false}}},
        {"head as the last token", z({h + "M", "a", h + "A"}), {{"a", S::modified, nullptr, "", "", false}}},
        {"rename head with one path", z({h + "R050", "old"}), {}},
        {"newlines before a head", z({"\n\n" + h + "A", "a"}), {{"a", S::added, nullptr, "", "", false}}},
        {"paths keep their newlines", z({h + "A", "\na"}), {{"\na", S::added, nullptr, "", "", false}}},
        {"extra tabs stay in the path", z({h + "A", "a\tb", "1\t2\ta\tb"}),
         {{"a\tb", S::added, nullptr, "1", "2", true}}},
        {"first place, last status", z({h + "A", "a", h + "M", "b", h + "R", "o", "a"}),
         {{"a", S::renamed, "o", "", "", false}, {"b", S::modified, nullptr, "", "", false}}},
        {"last numstat wins, before or after the raw record", z({"9\t9\ta", h + "D", "a", "1\t1\ta", "2\t3\ta"}),
         {{"a", S::deleted, nullptr, "2", "3", true}}},
        {"last numstat before the raw record", z({"8\t8\ta", "9\t9\ta", h + "D", "a"}),
         {{"a", S::deleted, nullptr, "9", "9", true}}},
        {"numstat rename cut short", z({h + "A", "a", "1\t1\t", "a"}), {{"a", S::added, nullptr, "", "", false}}},
        {"other tokens are skipped", z({"junk", "1\t2", h + "A", "a"}), {{"a", S::added, nullptr, "", "", false}}},
    };
    for (const Row& r : rows)
        if (!same(collect_file_changes(r.out), r.want)) check::fail(__FILE__, __LINE__, r.name);
}

TEST_CASE("ascii_count takes 1 to 18 ASCII digits") {
    std::uint64_t v = 7;
    CHECK(ascii_count("0", v) && v == 0);
    CHECK(ascii_count("999999999999999999", v) && v == 999999999999999999ull);
    for (std::string_view bad : {"", "-", "1x", " 1", "1234567890123456789"}) CHECK(!ascii_count(bad, v));
}

TEST_CASE("commit log: heads, bodies and what precedes the first head") {
    std::vector<std::pair<std::string_view, TokenRun>> got;
    const std::string log =
        z({"before", "\x1e" "1700000300", "\n:100644 100644 aaaaaaa bbbbbbb M", "a.txt", "1\t1\ta.txt",
           "\x1e" "1700000200", "\n\n\x1e 1700000100\n", "\n:000000 100644 0000000 ddddddd A", "b.txt",
           "5\t0\tb.txt", ""});
    split_commits(log, [&](std::string_view t, TokenRun b) { got.emplace_back(t, b); });
    CHECK(got.size() == 3);
    if (got.size() != 3) return;
    CHECK(got[0].first == "1700000300" && got[1].first == "1700000200" && got[2].first == " 1700000100\n");
    CHECK(got[0].second.count == 3 && got[1].second.count == 0 && got[2].second.count == 4);
    CHECK(got[2].second.text == z({"\n:000000 100644 0000000 ddddddd A", "b.txt", "5\t0\tb.txt", ""}));
    TokenStream first(got[0].second), none(got[1].second);
    CHECK(same(collect_file_changes(first), {{"a.txt", S::modified, nullptr, "1", "1", true}}));
    CHECK(none.done());

    // No body and one empty body token differ; the log's trailing NUL makes the latter.
    got.clear();
    const std::string two = z({"\x1e" "1", "\x1e" "2", ""});
    split_commits(two, [&](std::string_view t, TokenRun b) { got.emplace_back(t, b); });
    CHECK(got.size() == 2 && got[0].second.count == 0 && got[1].second.count == 1 && got[1].second.text.empty());
}
