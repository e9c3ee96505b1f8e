// collect_file_changes against a plain quadratic model of the same rules,
// so the hash table's ordering and tie-breaks are checked on any input.
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "core/raw_numstat.hpp"

using namespace gu::core;

namespace {

struct Model {
    std::vector<FileRecord> records;
    std::vector<FileRecord> counts;  // path, added, deleted

    FileRecord* find(std::vector<FileRecord>& v, std::string_view path) {
        for (FileRecord& r : v)
            if (r.path == path) return &r;
        return nullptr;
    }
    void raw(std::string_view letter, std::optional<std::string_view> old_path, std::string_view path) {
        if (path.empty()) return;
        FileRecord* r = find(records, path);
        if (!r) r = &records.emplace_back();
        r->path = path;
        r->status = status_of(letter);
        r->old_path = old_path;
    }
    void numstat(std::string_view added, std::string_view deleted, std::string_view path) {
        FileRecord* c = find(counts, path);
        if (!c) c = &counts.emplace_back();
        c->path = path;
        c->added = added;
        c->deleted = deleted;
    }
};

bool inside(std::string_view part, std::string_view whole) {
    return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::vector<FileRecord> got = collect_file_changes(text);

    Model m;
    TokenStream stream(text);
    scan_file_records(stream, m);
    if (got.size() != m.records.size()) std::abort();
    for (std::size_t i = 0; i < got.size(); ++i) {
        const FileRecord& g = got[i];
        const FileRecord& w = m.records[i];
        const FileRecord* c = m.find(m.counts, w.path);
        if (g.path.empty() || g.path != w.path || g.status != w.status || g.old_path != w.old_path) std::abort();
        if (g.has_counts != (c != nullptr)) std::abort();
        if (c && (g.added != c->added || g.deleted != c->deleted)) std::abort();
        if (!inside(g.path, text) || !inside(g.added, text) || !inside(g.old_path.value_or(""), text)) std::abort();
    }
    return 0;
}
