#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "check.hpp"
#include "core/raw_numstat.hpp"

using namespace gu::core;

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

template <class Unit>
std::string narrow(Piece<Unit> piece) {
    return std::string(piece.begin(), piece.end());
}

// Records as text, one "letter path[<old] counts" per record: counts read as
// "added,deleted", kept as "[added,deleted]" fields, or "-" for none.
template <class Unit>
std::string render(const std::vector<FileRecord>& records, const Unit* base) {
    std::string out;
    for (const FileRecord& r : records) {
        out += std::string(1, "ACDMR"[static_cast<int>(r.status)]) + " " + narrow(path_of(r, base));
        if (const auto old = old_path_of(r, base)) out += "<" + narrow(*old);
        if (r.counts == Counts::exact) {
            out += " " + std::to_string(r.added) + "," + std::to_string(r.deleted);
        } else if (r.counts == Counts::fields) {
            const auto [added, deleted] = count_fields(r, base);
            out += " [" + narrow(added) + "," + narrow(deleted) + "]";
        } else {
            out += " -";
        }
        out += "; ";
    }
    return out;
}

// The records of `out` read in units of `Unit`, each byte widened to one.
template <class Unit>
std::string collected(std::string_view out) {
    const std::basic_string<Unit> text(out.begin(), out.end());
    BasicTokenStream<Unit> stream{Piece<Unit>(text)};
    std::vector<FileRecord> records;
    FileCollector<Unit>().collect(stream, text.data(), records);
    return render(records, text.data());
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

// Token stream keeps every piece and reads empty past the end.
void test_token_stream() {
    TokenStream s{std::string_view("a\0\0b\0", 5)};
    std::vector<std::string_view> got;
    while (!s.done()) got.push_back(s.next());
    CHECK((got == std::vector<std::string_view>{"a", "", "b", ""}));
    CHECK(s.next().empty());
    TokenStream empty{std::string_view()};
    CHECK(!empty.done() && empty.next().empty() && empty.done());

    // Separators on both sides of the 64-unit blocks the stream searches
    // by, and runs without one across whole blocks, in every unit width;
    // in the wider ones between units whose low bytes are NUL.
    for (const std::size_t size : {63, 64, 65, 127, 128, 200}) {
        for (const std::size_t step : {1, 7, 63, 64, 65, 130}) {
            std::string text(size, 'x');
            for (std::size_t at = step - 1; at < size; at += step) text[at] = '\0';
            std::vector<std::size_t> want;
            for (std::size_t from = 0;;) {
                const std::size_t nul = text.find('\0', from);
                want.push_back((nul == std::string::npos ? size : nul) - from);
                if (nul == std::string::npos) break;
                from = nul + 1;
            }
            const auto lengths = [&](auto unit) {
                using Unit = decltype(unit);
                std::basic_string<Unit> wide(text.begin(), text.end());
                for (Unit& c : wide)
                    if (sizeof(Unit) > 1 && c != Unit(0)) c = static_cast<Unit>(sizeof(Unit) == 2 ? 0x0100 : 0x10000);
                BasicTokenStream<Unit> stream{Piece<Unit>(wide)};
                std::vector<std::size_t> found;
                while (!stream.done()) found.push_back(stream.next().size());
                return found;
            };
            CHECK(lengths(char{}) == want && lengths(char16_t{}) == want && lengths(char32_t{}) == want);
        }
    }
}

// Well-formed UTF-8 decoded into the narrowest kind that holds it.
void test_utf8_shapes() {
    const struct Row {
        std::string_view bytes;
        std::u32string want;
        std::uint32_t widest;
    } rows[] = {
        {"a/b", U"a/b", 0x7F},
        {"caf\xc3\xa9", U"caf\u00e9", 0xFF},
        {"\xc3\xbf\xc4\x80", U"\u00ff\u0100", 0xFFFF},
        {"\xe6\x96\x87\xe6\xa1\xa3/x", U"\u6587\u6863/x", 0xFFFF},
        {"\xef\xbf\xbf\xf0\x9f\x99\x82", U"\uffff\U0001f642", 0x10FFFF},
    };
    for (const Row& r : rows) {
        CHECK(valid_utf8(r.bytes));
        const Utf8Shape shape = utf8_shape(r.bytes);
        std::u32string got(shape.length, U'\0');
        decode_utf8(r.bytes, got.data());
        CHECK(shape.widest == r.widest && got == r.want);
    }
    // A bad byte, then a good sequence, at every place across the runs of
    // ASCII that the check skips sixty-four, sixteen or eight bytes at a time.
    for (std::size_t at = 0; at < 80; ++at) {
        std::string text(80, 'a');
        text[at] = '\xff';
        CHECK(!valid_utf8(text));
        text.replace(at, 1, "\xc3\xa9");
        CHECK(valid_utf8(text));
    }
}

// File records, in every unit width.
void test_file_records_in_every_unit_width() {
    const std::string h = ":1 2 a b ";
    std::string many = "R p0<o -; A p1 0,7; ";
    for (int i = 2; i < 17; ++i) many += "A p" + std::to_string(i) + " -; ";
    const struct Row {
        std::string out, want;
    } rows[] = {
        {z({h + "M", "a", h + "A", "n", h + "R087", "o", "r", h + "D", "d", "3\t1\ta", "10\t0\tn", "2\t2\t", "o", "r",
            "0\t7\td", "-\t-\ta", ""}),
         "M a 0,0; A n 10,0; R r<o 2,2; D d 0,7; "},
        {z({h + "M", "a", h + "R050", "old"}), "M a -; "},  // a head cut short
        // First place, last status; last numstat, before the raw record too.
        {z({"8\t8\tb", "9\t9\tb", h + "A", "a", h + "M", "b", h + "R", "o", "a", "1\t1\ta", "2\t3\ta"}),
         "R a<o 2,3; M b 9,9; "},
        // Counts beyond nine digits or outside ASCII are kept as fields.
        {z({h + "M", "a", h + "M", "b", "1234567890\t1\ta", "\xd9\xa3\t2\tb"}),
         "M a [1234567890,1]; M b [\xd9\xa3,2]; "},
        {many_paths(), many + "D late 3,4; "},  // found through the hash table, ties as with few
        // Paths in git's sorted order are not searched for; a path out of
        // that order (named again, or a prefix after a longer path) is.
        {z({h + "M", "a", h + "A", "a"}), "A a -; "},
        {z({h + "M", "ab", h + "M", "b", h + "A", "ab"}), "A ab -; M b -; "},
        {z({h + "M", "ab", h + "M", "a", h + "D", "ab"}), "D ab -; M a -; "},
        {z({h + "M", "z", h + "M", "\xc3\xa9", h + "A", "z"}), "A z -; M \xc3\xa9 -; "},
        {z({h + "M", "dir/sub/long-name-1", h + "M", "dir/sub/long-name-2", h + "A", "dir/sub/long-name-1"}),
         "A dir/sub/long-name-1 -; M dir/sub/long-name-2 -; "},
    };
    for (const Row& r : rows)
        CHECK(collected<char>(r.out) == r.want && collected<char16_t>(r.out) == r.want &&
              collected<char32_t>(r.out) == r.want);
}

// Commit log: heads, bodies and what precedes the first head.
void test_commit_log() {
    using Commits = std::vector<std::pair<std::string, std::vector<std::string>>>;
    const auto commits_of = [](std::string_view log) {
        Commits got;
        BasicLogStream<char> commits(log);
        for (std::string_view time; commits.next_commit(time);) {
            got.emplace_back(time, std::vector<std::string>{});
            while (!commits.done()) got.back().second.emplace_back(commits.next());
        }
        return got;
    };
    const std::string log = z({"before",
                               "\x1e"
                               "300",
                               "\n:1 2 a b M", "a", "1\t1\ta",
                               "\x1e"
                               "200",
                               "\n\n\x1e 100\n", "\n:1 2 c d A", "b", ""});
    CHECK((commits_of(log) ==
           Commits{{"300", {"\n:1 2 a b M", "a", "1\t1\ta"}}, {"200", {}}, {" 100\n", {"\n:1 2 c d A", "b", ""}}}));
    CHECK(commits_of("").empty() && commits_of(z({"x", ""})).empty());

    // A body read as records ends before the next head, even where a path
    // was due; what a reader leaves of a body is skipped.
    std::vector<std::string> records;
    FileCollector<char> collector;
    const std::string cut =
        z({"\x1e"
           "1",
           "\n:1 2 a b R1", "old",
           "\x1e"
           "2",
           "junk", ":1 2 a b A", "n"});
    BasicLogStream<char> commits(cut);
    std::vector<FileRecord> found;
    for (std::string_view time; commits.next_commit(time);) {
        collector.collect(commits, cut.data(), found, false);
        records.push_back(render(found, cut.data()));
    }
    CHECK((records == std::vector<std::string>{"", "A n -; "}));
}
