#include "core/raw_numstat.hpp"

#include <functional>
#include <limits>
#include <stdexcept>
#include <utility>

namespace gu::core {

std::string_view raw_letter(std::string_view head) noexcept {
    const std::size_t space = head.rfind(' ');
    const std::string_view tail = space == std::string_view::npos ? head : head.substr(space + 1);
    return tail.substr(0, code_point_length(tail));
}

Status status_of(std::string_view letter) noexcept {
    if (letter.size() != 1) return Status::modified;
    switch (letter[0]) {
        case 'A': return Status::added;
        case 'C': return Status::copied;
        case 'D': return Status::deleted;
        case 'R': return Status::renamed;
        default: return Status::modified;  // M, T and letters git may add later
    }
}

bool ascii_count(std::string_view field, std::uint64_t& value) noexcept {
    if (field.empty() || field.size() > 18) return false;
    std::uint64_t v = 0;
    for (const char c : field) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<std::uint64_t>(c - '0');
    }
    value = v;
    return true;
}

namespace {

// Counts of a path that no raw record has named yet.
struct Pending {
    std::string_view path, added, deleted;
    bool live = true;  // false once a raw record took the counts over
};

// A bucket of the path table: the high half of the path's hash, so that
// probes past other paths need not load them, and a reference to where
// the path is kept: 0 for a free bucket, else the index + 1 of its record,
// or of its Pending entry with the top bit set.
struct Bucket {
    std::uint32_t tag = 0;
    std::uint32_t ref = 0;
};

constexpr std::uint32_t pending_bit = 0x80000000u;

// Paths are found by open addressing with linear probing: one allocation
// per growth and none per path. On large outputs every lookup is a cache
// miss, so numstat records, which git prints in the order of the raw
// records, are first matched against the record after the one the last
// numstat record named.
class Collector {
public:
    std::vector<FileRecord> records;

    // A path's raw and numstat records take some 100 bytes or more, so room
    // for one path per 64 bytes of input (at half load) spares the rehashes
    // on large outputs, for a table below half the input's size.
    Collector(std::size_t input_size, PathKey key) : key_(key) {
        std::size_t buckets = 64;
        while (buckets < input_size / 32) buckets *= 2;
        table_.assign(buckets, Bucket{});
    }

    void raw(std::string_view letter, std::optional<std::string_view> old_path, std::string_view path) {
        if (path.empty()) return;
        Bucket& b = find(path);
        if (b.ref != 0 && !(b.ref & pending_bit)) {
            FileRecord& r = records[b.ref - 1];
            r.status = status_of(letter);
            r.old_path = old_path;
            return;
        }
        FileRecord r{path, status_of(letter), old_path, {}, {}, false};
        if (b.ref & pending_bit) {
            Pending& p = pending_[(b.ref & ~pending_bit) - 1];
            r.added = p.added;
            r.deleted = p.deleted;
            r.has_counts = true;
            p.live = false;
        } else {
            ++live_;
        }
        records.push_back(r);
        b.ref = make_ref(records.size(), 0);
    }

    void numstat(std::string_view added, std::string_view deleted, std::string_view path) {
        std::size_t at = next_;
        if (at >= records.size() || key_(records[at].path) != key_(path)) {
            Bucket& b = find(path);
            if (b.ref == 0) {
                pending_.push_back({path, added, deleted});
                b.ref = make_ref(pending_.size(), pending_bit);
                ++live_;
                return;
            }
            if (b.ref & pending_bit) {
                Pending& p = pending_[(b.ref & ~pending_bit) - 1];
                p.added = added;
                p.deleted = deleted;
                return;
            }
            at = b.ref - 1;
        }
        FileRecord& r = records[at];
        r.added = added;
        r.deleted = deleted;
        r.has_counts = true;
        next_ = at + 1;
    }

private:
    PathKey key_;
    std::vector<Pending> pending_;
    std::vector<Bucket> table_;
    std::size_t live_ = 0;  // paths in the table
    std::size_t next_ = 0;  // the record the next numstat record likely names

    static std::uint32_t make_ref(std::size_t index_plus_one, std::uint32_t bit) {
        if (index_plus_one >= pending_bit) throw std::length_error("too many paths");
        return static_cast<std::uint32_t>(index_plus_one) | bit;
    }

    std::size_t hash_of(std::string_view path) const noexcept { return std::hash<std::string_view>{}(key_(path)); }
    static std::uint32_t tag_of(std::size_t hash) noexcept {
        return static_cast<std::uint32_t>(static_cast<std::uint64_t>(hash) >> 32);
    }

    std::string_view path_of(std::uint32_t ref) const noexcept {
        return ref & pending_bit ? pending_[(ref & ~pending_bit) - 1].path : records[ref - 1].path;
    }

    // The bucket holding `path`, or the free bucket that is to hold it: the
    // caller fills that in, so the table is made room for beforehand.
    Bucket& find(std::string_view path) {
        if ((live_ + 1) * 2 > table_.size()) grow();
        const std::size_t h = hash_of(path);
        const std::uint32_t tag = tag_of(h);
        const std::string_view key = key_(path);
        const std::size_t mask = table_.size() - 1;
        for (std::size_t i = h & mask;; i = (i + 1) & mask) {
            Bucket& b = table_[i];
            if (b.ref == 0) {
                b.tag = tag;
                return b;
            }
            if (b.tag == tag && key_(path_of(b.ref)) == key) return b;
        }
    }

    // Rehashes from the records and live Pending entries, read in order,
    // rather than from the old buckets, whose paths lie all over the input.
    void grow() {
        table_.assign(table_.size() * 2, Bucket{});
        for (std::size_t k = 0; k < records.size(); ++k) place(records[k].path, make_ref(k + 1, 0));
        for (std::size_t k = 0; k < pending_.size(); ++k)
            if (pending_[k].live) place(pending_[k].path, make_ref(k + 1, pending_bit));
    }

    void place(std::string_view path, std::uint32_t ref) {
        const std::size_t h = hash_of(path);
        const std::size_t mask = table_.size() - 1;
        std::size_t i = h & mask;
        while (table_[i].ref != 0) i = (i + 1) & mask;
        table_[i] = {tag_of(h), ref};
    }
};

}  // namespace

std::vector<FileRecord> collect_file_changes(TokenStream& stream, PathKey key) {
    Collector c(stream.remaining(), key);
    scan_file_records(stream, c);
    return std::move(c.records);
}

std::vector<FileRecord> collect_file_changes(std::string_view output) {
    TokenStream stream(output);
    return collect_file_changes(stream);
}

}  // namespace gu::core
