// Records of `git diff/log --raw --numstat -z`: a raw record is a head token
// ":<modes> <hashes> <letter>" followed by one path token (two for renames
// and copies); a numstat record is "added\tdeleted\tpath", or
// "added\tdeleted\t" followed by the older and the newer path tokens.
//
// Everything here reads text in any code-unit width (see tokens.hpp): git's
// bytes, or a str's own units in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "core/tokens.hpp"

namespace gu::core {

enum class Status : std::uint8_t { added, copied, deleted, modified, renamed };

// The status letters of git's raw records and the word each stands for, in
// the order of the namespace's letter mapping, which the binding makes from
// this table and checks against it. Any other letter (and the empty one)
// reads as modified.
struct StatusLetter {
    char letter;
    Status status;
    const char* word;
};
inline constexpr StatusLetter status_letters[] = {
    {'A', Status::added, "added"},       {'C', Status::copied, "copied"},   {'D', Status::deleted, "deleted"},
    {'M', Status::modified, "modified"}, {'R', Status::renamed, "renamed"}, {'T', Status::modified, "modified"},
};

// The letters whose raw records name the older path before the path (a
// rename, a copy), in the order the namespace's letter set is made.
inline constexpr std::string_view two_path_letters = "RC";

// How a record's line counts are held.
enum class Counts : std::uint8_t {
    none,    // no numstat record named the path: 0 and 0
    exact,   // `added` and `deleted` are the counts
    fields,  // `added` is the offset of the numstat token; its first two fields need an exact reading
};

// One file of a diff as offsets into the scanned text, its counts read
// already where they are plain numbers: 28 bytes, a fraction of the text
// the record came from.
struct FileRecord {
    static constexpr std::uint32_t no_path = 0xFFFFFFFF;
    std::uint32_t path_at = 0, path_len = 0;
    std::uint32_t old_at = 0, old_len = no_path;  // no_path: no older path
    std::uint32_t added = 0, deleted = 0;
    Status status = Status::modified;
    Counts counts = Counts::none;
};
static_assert(sizeof(FileRecord) == 28);

// The longest text, in code units, whose offsets a FileRecord holds.
constexpr std::size_t max_record_text = 0xFFFFFFFE;

template <class Unit>
Piece<Unit> path_of(const FileRecord& r, const Unit* base) noexcept {
    return {base + r.path_at, r.path_len};
}

template <class Unit>
std::optional<Piece<Unit>> old_path_of(const FileRecord& r, const Unit* base) noexcept {
    if (r.old_len == FileRecord::no_path) return std::nullopt;
    return Piece<Unit>(base + r.old_at, r.old_len);
}

// The added and deleted fields of a record whose counts are Counts::fields.
template <class Unit>
std::pair<Piece<Unit>, Piece<Unit>> count_fields(const FileRecord& r, const Unit* base) noexcept {
    const Unit* added = base + r.added;  // the token holds two tabs
    const Unit* t1 = added;
    while (*t1 != Unit('\t')) ++t1;
    const Unit* t2 = t1 + 1;
    while (*t2 != Unit('\t')) ++t2;
    return {Piece<Unit>(added, static_cast<std::size_t>(t1 - added)),
            Piece<Unit>(t1 + 1, static_cast<std::size_t>(t2 - t1 - 1))};
}

// The status letter of a raw head: the first code point after the last space
// (of the whole head when it has no space); empty when nothing follows. In
// bytes a code point is its UTF-8 sequence; wider units hold one each.
template <class Unit>
Piece<Unit> raw_letter(Piece<Unit> head) noexcept {
    const std::size_t space = head.rfind(Unit(' '));
    const Piece<Unit> tail = space == Piece<Unit>::npos ? head : head.substr(space + 1);
    if constexpr (sizeof(Unit) == 1)
        return tail.substr(0, code_point_length(tail));
    else
        return tail.substr(0, tail.empty() ? 0 : 1);
}

template <class Unit>
Status status_of(Piece<Unit> letter) noexcept {
    if (letter.size() == 1)
        for (const StatusLetter& s : status_letters)
            if (letter[0] == Unit(s.letter)) return s.status;
    return Status::modified;  // letters git may add later
}

template <class Unit>
bool names_two_paths(Piece<Unit> letter) noexcept {
    if (letter.size() == 1)
        for (const char c : two_path_letters)
            if (letter[0] == Unit(c)) return true;
    return false;
}

// Sets `value` when `field` is 1 to 18 ASCII digits, which always fits in 64
// bits; false for anything else, which the caller then converts exactly.
template <class Unit>
bool ascii_count(Piece<Unit> field, std::uint64_t& value) noexcept {
    if (field.empty() || field.size() > 18) return false;
    std::uint64_t v = 0;
    for (const Unit c : field) {
        if (c < Unit('0') || c > Unit('9')) return false;
        v = v * 10 + static_cast<std::uint64_t>(c - Unit('0'));
    }
    value = v;
    return true;
}

// The count a numstat field gives when that needs no more than ASCII: up to
// nine digits, or anything ASCII that is not all digits (0: "-" for a binary
// file). False for longer numbers and for fields outside ASCII, whose digits
// of other scripts count too.
template <class Unit>
bool small_count(Piece<Unit> field, std::uint32_t& value) noexcept {
    std::uint32_t v = 0;
    bool digits = !field.empty();
    for (const Unit c : field) {
        if (static_cast<std::uint32_t>(c) >= 0x80) return false;
        if (c < Unit('0') || c > Unit('9'))
            digits = false;
        else
            v = v * 10 + static_cast<std::uint32_t>(c - Unit('0'));
    }
    if (digits && field.size() > 9) return false;
    value = digits ? v : 0;
    return true;
}

namespace detail {

template <class Unit>
Piece<Unit> drop_leading_newlines(Piece<Unit> s) noexcept {
    std::size_t i = 0;
    while (i < s.size() && s[i] == Unit('\n')) ++i;
    return s.substr(i);
}

template <class Unit>
struct NumstatFields {
    Piece<Unit> added, deleted, path;
};

// Cuts at the first two tabs only; false unless that gives three pieces.
template <class Unit>
bool split_numstat(Piece<Unit> tok, NumstatFields<Unit>& out) noexcept {
    const std::size_t t1 = tok.find(Unit('\t'));
    if (t1 == Piece<Unit>::npos) return false;
    const std::size_t t2 = tok.find(Unit('\t'), t1 + 1);
    if (t2 == Piece<Unit>::npos) return false;
    out.added = tok.substr(0, t1);
    out.deleted = tok.substr(t1 + 1, t2 - t1 - 1);
    out.path = tok.substr(t2 + 1);
    return true;
}

// The raw heads among the NUL-separated tokens of `text` (a token that,
// after its leading line feeds, begins with ':'), counted without cutting
// the tokens out.
template <class Unit>
std::size_t count_heads(Piece<Unit> text) noexcept {
    std::size_t heads = 0;
    UnitFinder<Unit> nuls(text.data(), text.size(), Unit(0));
    const Unit* const end = text.data() + text.size();
    for (const Unit* start = text.data();;) {
        const Unit* p = start;
        while (p < end && *p == Unit('\n')) ++p;
        heads += p < end && *p == Unit(':');
        const Unit* nul = nuls.next();
        if (nul == nullptr) return heads;
        start = nul + 1;
    }
}

}  // namespace detail

// Reads records until the stream is done and reports each one:
//   h.raw(Piece letter, std::optional<Piece> old_path, Piece path)
//   h.numstat(Piece added, Piece deleted, Piece path)
// `added` begins where its numstat token begins. Tokens that are neither
// are skipped. Reads past the end give empty paths; the handler decides what
// an empty path means.
template <class Stream, class Handler>
void scan_file_records(Stream& stream, Handler& h) {
    using Unit = typename Stream::unit_type;
    while (!stream.done()) {
        const Piece<Unit> tok = detail::drop_leading_newlines(stream.next());
        if (!tok.empty() && tok[0] == Unit(':')) {
            const Piece<Unit> letter = raw_letter(tok);
            std::optional<Piece<Unit>> old_path;
            if (names_two_paths(letter)) old_path = stream.next();
            const Piece<Unit> path = stream.next();
            h.raw(letter, old_path, path);
            continue;
        }
        detail::NumstatFields<Unit> f;
        if (!detail::split_numstat(tok, f)) continue;
        if (f.path.empty()) {
            stream.next();  // the older path of a rename or copy
            f.path = stream.next();
        }
        h.numstat(f.added, f.deleted, f.path);
    }
}

// Pairs the raw and numstat records of one diff (or one commit's body) by
// path: one record per path named by a raw record, in the order of each
// path's first raw record, with the status and older path of its last one
// and the counts of its last numstat record.
//
// Paths are told apart by their code units. Git writes the raw records of
// a diff sorted by path, and while each path sorts after the one before and
// no numstat record has come first, a path can be none seen yet: it is not
// searched for at all. Past that, a handful of paths are found by a linear
// search, more by open addressing with linear probing (one allocation per
// growth and none per path). On large outputs every lookup
// is a cache miss, so numstat records, which git prints in the order of the
// raw records, are first matched against the record after the one the last
// numstat record named. One collector serves all the commits of a log,
// keeping its buffers.
template <class Unit>
class FileCollector {
public:
    // The records of the tokens left in `stream`, as offsets from `base`,
    // into `out` (emptied first; with `size_first`, sized for the text left
    // before the scan: worth it for one large diff, not for each commit of a
    // log, whose buffer is reused).
    // Throws std::length_error when the text is longer than max_record_text.
    template <class Stream>
    void collect(Stream& stream, const Unit* base, std::vector<FileRecord>& out, bool size_first = true) {
        const Piece<Unit> rest = stream.rest();
        if (rest.data() != nullptr && static_cast<std::size_t>(rest.data() - base) + rest.size() > max_record_text)
            throw std::length_error("text too long for its records");
        base_ = base;
        records_ = &out;
        out.clear();
        pending_.clear();
        next_ = 0;
        live_ = 0;
        room_ = 0;
        indexed_ = false;
        ascending_ = true;
        end_ = nullptr;
        if (size_first) {
            // Room for one record per typical_record_units of text: for git's
            // usual output all of them, without a pass to count them first,
            // and at most 28 bytes per 96 units. Output denser in records
            // (short names, short object names) fills it before its end; the
            // raw heads still to come are counted then, and the buffer grows
            // once, to its exact size.
            room_ = rest.size() / typical_record_units + 1;
            out.reserve(room_);
            end_ = rest.data() + rest.size();
        }
        scan_file_records(stream, *this);
        records_ = nullptr;
    }

    // For git's own bytes: notes whether every path the collector compares
    // is well-formed UTF-8, under which paths equal as bytes are exactly the
    // paths equal as decoded text.
    void check_utf8() noexcept { check_utf8_ = true; }
    bool paths_valid() const noexcept { return paths_valid_; }

    // scan_file_records' handler.
    void raw(Piece<Unit> letter, std::optional<Piece<Unit>> old_path, Piece<Unit> path) {
        if (path.empty()) return;
        check(path);
        std::vector<FileRecord>& records = *records_;
        if (records.size() == records.capacity() && end_ != nullptr) {
            const Unit* after = path.data() + path.size();
            const Piece<Unit> later(after, static_cast<std::size_t>(end_ - after));
            records.reserve(records.size() + 1 + detail::count_heads(later));
            end_ = nullptr;
        }
        if (ascending_ && pending_.empty() && (records.empty() || precedes(path_of(records.back(), base_), path))) {
            records.push_back(new_record(letter, old_path, path));
            ++live_;
            return;
        }
        const Where w = find(path);
        if (w.ref != 0 && !(w.ref & pending_bit)) {
            FileRecord& r = records[w.ref - 1];
            r.status = status_of(letter);
            set_old_path(r, old_path);
            return;
        }
        FileRecord r = new_record(letter, old_path, path);
        if (w.ref & pending_bit) {
            Pending& p = pending_[(w.ref & ~pending_bit) - 1];
            r.added = p.added;
            r.deleted = p.deleted;
            r.counts = p.counts;
            p.live = false;
        } else {
            ++live_;
        }
        records.push_back(r);
        if (w.bucket) w.bucket->ref = make_ref(records.size(), 0);
    }

    void numstat(Piece<Unit> added, Piece<Unit> deleted, Piece<Unit> path) {
        std::vector<FileRecord>& records = *records_;
        std::size_t at = next_;
        if (at >= records.size() || !same(path_of(records[at], base_), path)) {
            check(path);  // a path the same as a record's was checked with it
            const Where w = find(path);
            if (w.ref == 0) {
                Pending p{offset(path), static_cast<std::uint32_t>(path.size())};
                set_counts(p, added, deleted);
                pending_.push_back(p);
                ++live_;
                if (w.bucket) w.bucket->ref = make_ref(pending_.size(), pending_bit);
                return;
            }
            if (w.ref & pending_bit) {
                set_counts(pending_[(w.ref & ~pending_bit) - 1], added, deleted);
                return;
            }
            at = w.ref - 1;
        }
        set_counts(records[at], added, deleted);
        next_ = at + 1;
    }

private:
    // Units of git's output a file takes at the least in most diffs: a raw
    // head of about 36 (two modes, two object names abbreviated to nine
    // digits, the status), a numstat record and the path written twice.
    static constexpr std::size_t typical_record_units = 96;
    // Below this many paths a linear search beats hashing them.
    static constexpr std::size_t linear_limit = 16;
    static constexpr std::uint32_t pending_bit = 0x80000000u;

    // Counts of a path that no raw record has named yet.
    struct Pending {
        std::uint32_t path_at = 0, path_len = 0;
        std::uint32_t added = 0, deleted = 0;
        Counts counts = Counts::none;
        bool live = true;  // false once a raw record took the counts over
    };

    // A bucket of the path table: the high half of the path's hash, so that
    // probes past other paths need not load them, and a reference to where
    // the path is kept: 0 for a free bucket, else the index + 1 of its
    // record, or of its Pending entry with the top bit set.
    struct Bucket {
        std::uint32_t tag = 0;
        std::uint32_t ref = 0;
    };

    // Where a path is kept (ref 0: nowhere yet) and, while the table is in
    // use, the bucket that holds it or is to hold it.
    struct Where {
        std::uint32_t ref = 0;
        Bucket* bucket = nullptr;
    };

    const Unit* base_ = nullptr;
    std::vector<FileRecord>* records_ = nullptr;
    std::vector<Pending> pending_;
    std::vector<Bucket> table_;
    bool check_utf8_ = false, paths_valid_ = true;
    bool indexed_ = false;       // paths are found through table_
    bool ascending_ = true;      // every path so far sorted after the one before; none searched for yet
    std::size_t room_ = 0;       // records the text may hold: the table's first size
    const Unit* end_ = nullptr;  // the text's end while the buffer may still need its exact size
    std::size_t live_ = 0;       // paths kept: records and live Pending entries
    std::size_t next_ = 0;       // the record the next numstat record likely names

    // A read past the last token gives a view without data: offset 0.
    std::uint32_t offset(Piece<Unit> piece) const noexcept {
        return piece.data() ? static_cast<std::uint32_t>(piece.data() - base_) : 0;
    }

    static bool same(Piece<Unit> a, Piece<Unit> b) noexcept {
        return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(Unit)) == 0);
    }

    void check(Piece<Unit> path) noexcept {
        if constexpr (sizeof(Unit) == 1)
            if (check_utf8_ && paths_valid_ && !is_ascii(path) && !valid_utf8(path)) paths_valid_ = false;
    }

    FileRecord new_record(Piece<Unit> letter, const std::optional<Piece<Unit>>& old_path, Piece<Unit> path) const {
        FileRecord r;
        r.path_at = offset(path);
        r.path_len = static_cast<std::uint32_t>(path.size());
        r.status = status_of(letter);
        set_old_path(r, old_path);
        return r;
    }

    void set_old_path(FileRecord& r, const std::optional<Piece<Unit>>& old_path) const noexcept {
        r.old_at = old_path ? offset(*old_path) : 0;
        r.old_len = old_path ? static_cast<std::uint32_t>(old_path->size()) : FileRecord::no_path;
    }

    template <class Target>
    void set_counts(Target& t, Piece<Unit> added, Piece<Unit> deleted) const noexcept {
        if (small_count(added, t.added) && small_count(deleted, t.deleted)) {
            t.counts = Counts::exact;
        } else {
            t.added = offset(added);  // the numstat token starts with its added field
            t.counts = Counts::fields;
        }
    }

    static std::uint32_t make_ref(std::size_t index_plus_one, std::uint32_t bit) {
        if (index_plus_one >= pending_bit) throw std::length_error("too many paths");
        return static_cast<std::uint32_t>(index_plus_one) | bit;
    }

    static std::size_t hash_of(Piece<Unit> path) noexcept { return static_cast<std::size_t>(hash_units(path)); }
    static std::uint32_t tag_of(std::size_t hash) noexcept {
        return static_cast<std::uint32_t>(static_cast<std::uint64_t>(hash) >> 32);
    }

    Piece<Unit> path_at(std::uint32_t ref) const noexcept {
        if (ref & pending_bit) {
            const Pending& p = pending_[(ref & ~pending_bit) - 1];
            return {base_ + p.path_at, p.path_len};
        }
        return path_of((*records_)[ref - 1], base_);
    }

    Where find(Piece<Unit> path) {
        ascending_ = false;
        if (!indexed_ && live_ + 1 >= linear_limit) index(live_ + 1 > room_ ? live_ + 1 : room_);
        if (!indexed_) {
            const std::vector<FileRecord>& records = *records_;
            for (std::size_t k = 0; k < records.size(); ++k)
                if (same(path_of(records[k], base_), path)) return {make_ref(k + 1, 0)};
            for (std::size_t k = 0; k < pending_.size(); ++k)
                if (pending_[k].live && same({base_ + pending_[k].path_at, pending_[k].path_len}, path))
                    return {make_ref(k + 1, pending_bit)};
            return {};
        }
        if ((live_ + 1) * 2 > table_.size()) rebuild(table_.size() * 2);
        const std::size_t h = hash_of(path);
        const std::uint32_t tag = tag_of(h);
        const std::size_t mask = table_.size() - 1;
        for (std::size_t i = h & mask;; i = (i + 1) & mask) {
            Bucket& b = table_[i];
            if (b.ref == 0) {
                b.tag = tag;
                return {0, &b};
            }
            if (b.tag == tag && same(path_at(b.ref), path)) return {b.ref, &b};
        }
    }

    // Starts finding paths through the table, room made for `paths` at half load.
    void index(std::size_t paths) {
        std::size_t buckets = 64;
        while (buckets < paths * 2 + 2) buckets *= 2;
        indexed_ = true;
        rebuild(buckets);
    }

    // Rehashes from the records and live Pending entries, read in order,
    // rather than from the old buckets, whose paths lie all over the input.
    void rebuild(std::size_t buckets) {
        table_.assign(buckets, Bucket{});
        const std::vector<FileRecord>& records = *records_;
        for (std::size_t k = 0; k < records.size(); ++k) place(path_of(records[k], base_), make_ref(k + 1, 0));
        for (std::size_t k = 0; k < pending_.size(); ++k)
            if (pending_[k].live)
                place({base_ + pending_[k].path_at, pending_[k].path_len}, make_ref(k + 1, pending_bit));
    }

    void place(Piece<Unit> path, std::uint32_t ref) {
        const std::size_t h = hash_of(path);
        const std::size_t mask = table_.size() - 1;
        std::size_t i = h & mask;
        while (table_[i].ref != 0) i = (i + 1) & mask;
        table_[i] = {tag_of(h), ref};
    }
};

inline bool ascii_count(std::string_view field, std::uint64_t& value) noexcept {
    return ascii_count<char>(field, value);
}

// `git log --format=%x1e%ct --raw --numstat -z` output, read commit by
// commit in one pass. A token whose text after its leading newlines starts
// with 0x1E heads a commit; the tokens up to the next head are its body, and
// tokens before the first head are ignored. Between next_commit() calls the
// stream reads the current body as a token stream that ends before the next
// head (a head is a head even where a path was due); what a reader leaves
// of a body is skipped.
template <class Unit>
class BasicLogStream {
public:
    using unit_type = Unit;

    explicit BasicLogStream(Piece<Unit> log) noexcept : all_(log), end_(log.data() + log.size()) { advance(); }

    // Moves to the next commit: false at the end of the log; else its time
    // text (the head after the 0x1E, untrimmed) and its body comes next.
    bool next_commit(Piece<Unit>& time_text) noexcept {
        while (has_ && !head_) advance();
        if (!has_) return false;
        time_text = bare_.substr(1);
        advance();
        return true;
    }

    bool done() const noexcept { return !has_ || head_; }

    Piece<Unit> next() noexcept {
        if (done()) return {};
        const Piece<Unit> token = look_;
        advance();
        return token;
    }

    // Units not read yet, the next head's included.
    Piece<Unit> rest() const noexcept {
        return has_ ? Piece<Unit>(look_.data(), static_cast<std::size_t>(end_ - look_.data())) : Piece<Unit>();
    }

private:
    BasicTokenStream<Unit> all_;
    const Unit* end_;
    bool has_ = false;   // look_ holds a token not read yet
    bool head_ = false;  // look_ heads a commit
    Piece<Unit> look_, bare_;

    void advance() noexcept {
        has_ = !all_.done();
        if (!has_) return;
        look_ = all_.next();
        bare_ = detail::drop_leading_newlines(look_);
        head_ = !bare_.empty() && bare_[0] == Unit('\x1e');
    }
};

}  // namespace gu::core
