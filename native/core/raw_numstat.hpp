// Records of `git diff/log --raw --numstat -z`: a raw record is a head token
// ":<modes> <hashes> <letter>" followed by one path token (two for renames
// and copies); a numstat record is "added\tdeleted\tpath", or
// "added\tdeleted\t" followed by the older and the newer path tokens.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "core/tokens.hpp"

namespace gu::core {

enum class Status : std::uint8_t { added, copied, deleted, modified, renamed };

struct FileRecord {
    std::string_view path;
    Status status = Status::modified;
    std::optional<std::string_view> old_path;
    std::string_view added, deleted;  // count fields as git printed them
    bool has_counts = false;          // false: no numstat record named the path
};

// The status letter of a raw head: the first code point after the last space
// (of the whole head when it has no space); empty when nothing follows.
std::string_view raw_letter(std::string_view head) noexcept;

// A added, C copied, D deleted, R renamed; M, T, any other letter and the
// empty letter: modified.
Status status_of(std::string_view letter) noexcept;

// Sets `value` when `field` is 1 to 18 ASCII digits, which always fits in 64
// bits; false for anything else, which the caller then converts exactly.
bool ascii_count(std::string_view field, std::uint64_t& value) noexcept;

namespace detail {

inline std::string_view drop_leading_newlines(std::string_view s) noexcept {
    std::size_t i = 0;
    while (i < s.size() && s[i] == '\n') ++i;
    return s.substr(i);
}

struct NumstatFields {
    std::string_view added, deleted, path;
};

// Cuts at the first two tabs only; false unless that gives three pieces.
inline bool split_numstat(std::string_view tok, NumstatFields& out) noexcept {
    const std::size_t t1 = tok.find('\t');
    if (t1 == std::string_view::npos) return false;
    const std::size_t t2 = tok.find('\t', t1 + 1);
    if (t2 == std::string_view::npos) return false;
    out.added = tok.substr(0, t1);
    out.deleted = tok.substr(t1 + 1, t2 - t1 - 1);
    out.path = tok.substr(t2 + 1);
    return true;
}

}  // namespace detail

// Reads records until the stream is done and reports each one:
//   h.raw(std::string_view letter, std::optional<std::string_view> old_path, std::string_view path)
//   h.numstat(std::string_view added, std::string_view deleted, std::string_view path)
// Tokens that are neither are skipped. Reads past the end give empty paths;
// the handler decides what an empty path means.
template <class Handler>
void scan_file_records(TokenStream& stream, Handler& h) {
    while (!stream.done()) {
        const std::string_view tok = detail::drop_leading_newlines(stream.next());
        if (!tok.empty() && tok[0] == ':') {
            const std::string_view letter = raw_letter(tok);
            std::optional<std::string_view> old_path;
            if (letter == "R" || letter == "C") old_path = stream.next();
            const std::string_view path = stream.next();
            h.raw(letter, old_path, path);
            continue;
        }
        detail::NumstatFields f;
        if (!detail::split_numstat(tok, f)) continue;
        if (f.path.empty()) {
            stream.next();  // the older path of a rename or copy
            f.path = stream.next();
        }
        h.numstat(f.added, f.deleted, f.path);
    }
}

// What tells two paths apart: their bytes, unless the scanned text stands
// for other text (a projection of wider characters, where different
// characters may scan alike); `of` then gives the bytes a path stands for.
struct PathKey {
    std::string_view (*of)(std::string_view path, const void* context) = nullptr;
    const void* context = nullptr;

    std::string_view operator()(std::string_view path) const { return of ? of(path, context) : path; }
};

// One record per path named by a raw record, in the order of each path's
// first raw record, with the status and older path of its last one and the
// counts of its last numstat record. Views point into the scanned text.
std::vector<FileRecord> collect_file_changes(TokenStream& stream, PathKey key = {});
std::vector<FileRecord> collect_file_changes(std::string_view output);

// Splits `git log --format=%x1e%ct --raw --numstat -z` output into commits.
// A token whose text after its leading newlines starts with 0x1E heads a
// commit; the tokens up to the next head are its body, and tokens before the
// first head are ignored. Calls on_commit(std::string_view time_text,
// TokenRun body) per commit in order; time_text is the head after the 0x1E,
// untrimmed. TokenStream(body) reads the body tokens back.
template <class F>
void split_commits(std::string_view output, F on_commit) {
    TokenStream stream(output);
    bool open = false;
    std::string_view time_text;
    const char* body_begin = nullptr;
    const char* body_end = nullptr;
    std::size_t body_count = 0;
    auto close = [&] {
        if (!open) return;
        const std::string_view text =
            body_count ? std::string_view(body_begin, static_cast<std::size_t>(body_end - body_begin))
                       : std::string_view();
        on_commit(time_text, TokenRun{text, body_count});
    };
    while (!stream.done()) {
        const std::string_view raw = stream.next();
        const std::string_view tok = detail::drop_leading_newlines(raw);
        if (!tok.empty() && tok[0] == '\x1e') {
            close();
            open = true;
            time_text = tok.substr(1);
            body_count = 0;
        } else if (open) {
            if (body_count++ == 0) body_begin = raw.data();
            body_end = raw.data() + raw.size();
        }
    }
    close();
}

}  // namespace gu::core
