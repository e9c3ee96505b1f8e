#include <initializer_list>
#include <cstdint>
#include <optional>
#include <utility>
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

// A record as the collector should leave it: counts read, or for
// Counts::fields the two fields as git printed them.
struct Want {
    std::string_view path;
    Status status;
    const char* old_path;  // nullptr: none
    std::string_view added, deleted;
    Counts counts;
};

// The units of a piece as bytes (every test unit is below 256).
template <class Unit>
std::string narrow(Piece<Unit> piece) {
    return std::string(piece.begin(), piece.end());
}

template <class Unit>
std::basic_string<Unit> widen(std::string_view bytes) {
    return std::basic_string<Unit>(bytes.begin(), bytes.end());
}

template <class Unit>
bool same(const std::vector<FileRecord>& got, const std::vector<Want>& want, const Unit* base) {
    if (got.size() != want.size()) return false;
    for (std::size_t i = 0; i < got.size(); ++i) {
        const FileRecord& r = got[i];
        const Want& w = want[i];
        const std::optional<Piece<Unit>> old = old_path_of(r, base);
        const bool old_ok = w.old_path ? old && narrow(*old) == w.old_path : !old;
        if (narrow(path_of(r, base)) != w.path || r.status != w.status || !old_ok || r.counts != w.counts) return false;
        if (r.counts == Counts::fields) {
            const auto [added, deleted] = count_fields(r, base);
            if (narrow(added) != w.added || narrow(deleted) != w.deleted) return false;
        } else if (r.counts == Counts::exact) {
            std::uint32_t a = 0, d = 0;
            if (!small_count(w.added, a) || !small_count(w.deleted, d) || r.added != a || r.deleted != d) return false;
        }
    }
    return true;
}

// The records of `out` read in units of `Unit`, each byte widened to one.
template <class Unit>
bool collects(std::string_view out, const std::vector<Want>& want) {
    const std::basic_string<Unit> text = widen<Unit>(out);
    BasicTokenStream<Unit> stream{Piece<Unit>(text)};
    std::vector<FileRecord> records;
    FileCollector<Unit>().collect(stream, text.data(), records);
    return same(records, want, text.data());
}

// Past the linear search's reach: seventeen paths, one of them named again,
// and counts that come before their raw record.
std::string many_paths() {
    std::string out = std::string("5\t5\tlate") + '\0' + "9\t9\tlate";
    for (int i = 0; i < 17; ++i) out += std::string(1, '\0') + ":1 2 a b A" + '\0' + "p" + std::to_string(i);
    for (const char* t : {":1 2 a b R1", "o", "p0", "-\t7\tp1", ":1 2 a b D", "late", "3\t4\tlate"})
        out += std::string(1, '\0') + t;
    return out;
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

// Records of many_paths(): found through the hash table, ties as with few.
const char* const kMany[] = {"p2", "p3", "p4", "p5", "p6", "p7", "p8", "p9", "p10", "p11", "p12", "p13", "p14", "p15", "p16"};
std::vector<Want> many_wanted() {
    std::vector<Want> want{{"p0", S::renamed, "o", "", "", Counts::none}, {"p1", S::added, nullptr, "-", "7", Counts::exact}};
    for (const char* name : kMany) want.push_back({name, S::added, nullptr, "", "", Counts::none});
    want.push_back({"late", S::deleted, nullptr, "3", "4", Counts::exact});
    return want;
}

TEST_CASE("file records, in every unit width") {
    const std::string h = ":1 2 a b ";
    const struct Row {
        const char* name;
        std::string out;
        std::vector<Want> want;
    } rows[] = {
        {"every kind",
         z({h + "M", "a.py", h + "A", "new.md", h + "R087", "old.py", "name.py", h + "D", "gone", h + "M", "logo",
            "3\t1\ta.py", "10\t0\tnew.md", "2\t2\t", "old.py", "name.py", "0\t7\tgone", "-\t-\tlogo", ""}),
         {{"a.py", S::modified, nullptr, "3", "1", Counts::exact},
          {"new.md", S::added, nullptr, "10", "0", Counts::exact},
          {"name.py", S::renamed, "old.py", "2", "2", Counts::exact},
          {"gone", S::deleted, nullptr, "0", "7", Counts::exact},
          {"logo", S::modified, nullptr, "-", "-", Counts::exact}}},
        {"a head cut short", z({h + "M", "a", h + "R050", "old"}), {{"a", S::modified, nullptr, "", "", Counts::none}}},
        {"first place, last status; last numstat, before the raw record too",
         z({"8\t8\tb", "9\t9\tb", h + "A", "a", h + "M", "b", h + "R", "o", "a", "1\t1\ta", "2\t3\ta"}),
         {{"a", S::renamed, "o", "2", "3", Counts::exact}, {"b", S::modified, nullptr, "9", "9", Counts::exact}}},
        {"counts beyond nine digits or outside ASCII are kept as fields",
         z({h + "M", "a", h + "M", "b", "1234567890\t1\ta", "\xd9\xa3\t2\tb"}),
         {{"a", S::modified, nullptr, "1234567890", "1", Counts::fields},
          {"b", S::modified, nullptr, "\xd9\xa3", "2", Counts::fields}}},
        {"many paths", many_paths(), many_wanted()},
    };
    for (const Row& r : rows) {
        if (!same(collect_file_changes(r.out), r.want, r.out.data())) check::fail(__FILE__, __LINE__, r.name);
        if (!collects<char16_t>(r.out, r.want) || !collects<char32_t>(r.out, r.want))
            check::fail(__FILE__, __LINE__, r.name);
    }
}

// Each commit of a log as its time text and body tokens.
std::vector<std::pair<std::string, std::vector<std::string>>> commits_of(std::string_view log) {
    std::vector<std::pair<std::string, std::vector<std::string>>> got;
    split_commits(log, [&](std::string_view time, BasicLogStream<char>& body) {
        got.emplace_back(time, std::vector<std::string>{});
        while (!body.done()) got.back().second.emplace_back(body.next());
    });
    return got;
}

TEST_CASE("commit log: heads, bodies and what precedes the first head") {
    using Commits = std::vector<std::pair<std::string, std::vector<std::string>>>;
    const std::string log =
        z({"before", "\x1e" "1700000300", "\n:100644 100644 aaaaaaa bbbbbbb M", "a.txt", "1\t1\ta.txt",
           "\x1e" "1700000200", "\n\n\x1e 1700000100\n", "\n:000000 100644 0000000 ddddddd A", "b.txt",
           "5\t0\tb.txt", ""});
    CHECK((commits_of(log) ==
           Commits{{"1700000300", {"\n:100644 100644 aaaaaaa bbbbbbb M", "a.txt", "1\t1\ta.txt"}},
                   {"1700000200", {}},
                   {" 1700000100\n", {"\n:000000 100644 0000000 ddddddd A", "b.txt", "5\t0\tb.txt", ""}}}));
    // No body and one empty body token differ; the log's trailing NUL makes the latter.
    CHECK((commits_of(z({"\x1e" "1", "\x1e" "2", ""})) == Commits{{"1", {}}, {"2", {""}}}));
    CHECK(commits_of("").empty() && commits_of(z({"x", ""})).empty());

    // A body read as records ends before the next head, even where a path
    // was due; what a reader leaves of a body is skipped.
    std::vector<std::vector<FileRecord>> records;
    FileCollector<char> collector;
    const std::string cut = z({"\x1e" "1", "\n:1 2 a b R1", "old", "\x1e" "2", "junk", ":1 2 a b A", "n"});
    split_commits(cut, [&](std::string_view, BasicLogStream<char>& body) {
        collector.collect(body, cut.data(), records.emplace_back(), false);
    });
    CHECK(records.size() == 2 && records[0].empty() &&
          same(records[1], {{"n", S::added, nullptr, "", "", Counts::none}}, cut.data()));
}
