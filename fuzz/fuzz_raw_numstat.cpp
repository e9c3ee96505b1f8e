// FileCollector against a plain quadratic model of the same rules,
// so the path table's ordering and tie-breaks are checked on any input; and
// the same text read as 2- and 4-byte units (each byte widened to one) must
// give the same records; checking paths as UTF-8 (for git's bytes) flags
// exactly what it must.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/raw_numstat.hpp"

using namespace gu::core;

namespace {

struct Entry {
    std::string_view path;
    Status status = Status::modified;
    std::optional<std::string_view> old_path;
    std::string_view added, deleted;
};

struct Model {
    std::vector<Entry> records;
    std::vector<Entry> counts;

    static Entry* find(std::vector<Entry>& v, std::string_view path) {
        for (Entry& r : v)
            if (r.path == path) return &r;
        return nullptr;
    }
    void raw(std::string_view letter, std::optional<std::string_view> old_path, std::string_view path) {
        if (path.empty()) return;
        Entry* r = find(records, path);
        if (!r) r = &records.emplace_back();
        r->path = path;
        r->status = status_of(letter);
        r->old_path = old_path;
    }
    void numstat(std::string_view added, std::string_view deleted, std::string_view path) {
        Entry* c = find(counts, path);
        if (!c) c = &counts.emplace_back();
        c->path = path;
        c->added = added;
        c->deleted = deleted;
    }
};

// The counts a record holds, as the fields' text or the values read.
bool counts_match(const FileRecord& g, const Entry* c, const char* base) {
    if ((g.counts == Counts::none) != (c == nullptr)) return false;
    if (g.counts == Counts::fields) return count_fields(g, base) == std::pair(c->added, c->deleted);
    if (g.counts == Counts::exact) {
        std::uint32_t a = 0, d = 0;
        return small_count(c->added, a) && small_count(c->deleted, d) && a == g.added && d == g.deleted;
    }
    return true;
}

// The records of one diff, as the binding collects them.
template <class Unit>
std::vector<FileRecord> collect(Piece<Unit> text) {
    BasicTokenStream<Unit> stream(text);
    std::vector<FileRecord> records;
    FileCollector<Unit>().collect(stream, text.data(), records);
    return records;
}

template <class Unit>
void same_in_width(std::string_view text, const std::vector<FileRecord>& bytes) {
    const std::basic_string<Unit> wide(text.begin(), text.end());
    const std::vector<FileRecord> got = collect(Piece<Unit>(wide));
    if (got.size() != bytes.size()) std::abort();
    for (std::size_t i = 0; i < got.size(); ++i) {
        const FileRecord &g = got[i], &b = bytes[i];
        // Statuses differ only where a non-ASCII letter is one code point in
        // bytes and one unit per byte here: both read "modified".
        if (g.path_at != b.path_at || g.path_len != b.path_len || g.old_at != b.old_at || g.old_len != b.old_len ||
            g.counts != b.counts || g.added != b.added || g.deleted != b.deleted || g.status != b.status)
            std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::vector<FileRecord> got = collect(text);

    Model m;
    TokenStream stream(text);
    scan_file_records(stream, m);
    if (got.size() != m.records.size()) std::abort();
    for (std::size_t i = 0; i < got.size(); ++i) {
        const FileRecord& g = got[i];
        const Entry& w = m.records[i];
        if (g.path_len == 0 || path_of(g, text.data()) != w.path || g.status != w.status ||
            old_path_of(g, text.data()) != w.old_path)
            std::abort();
        if (!counts_match(g, Model::find(m.counts, w.path), text.data())) std::abort();
    }
    same_in_width<char16_t>(text, got);
    same_in_width<char32_t>(text, got);

    // Checking paths as UTF-8 changes no record; valid output passes, and
    // what passes named only well-formed paths.
    FileCollector<char> checking;
    checking.check_utf8();
    TokenStream again(text);
    std::vector<FileRecord> checked;
    checking.collect(again, text.data(), checked);
    if (checked.size() != got.size() || (valid_utf8(text) && !checking.paths_valid())) std::abort();
    for (const FileRecord& r : checked)
        if (checking.paths_valid() && !valid_utf8(path_of(r, text.data()))) std::abort();
    return 0;
}
