// Pieces of git's NUL-separated output, read front to back without copying,
// and the byte length of a UTF-8 code point for the parsers that cut text
// at character boundaries.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace gu::core {

// A run of consecutive tokens: `text` split at every NUL gives exactly
// `count` tokens. count == 0 is no token at all (text is then empty), which
// differs from count == 1 with empty text: one empty token.
struct TokenRun {
    std::string_view text;
    std::size_t count = 0;
};

// Cuts text at every NUL. Every piece counts, empty ones included: text that
// ends with NUL gives an empty last token and the empty text gives one empty
// token. Reading past the last token gives the empty view.
class TokenStream {
public:
    explicit TokenStream(std::string_view text) noexcept : rest_(text) {}
    explicit TokenStream(TokenRun run) noexcept : rest_(run.text), done_(run.count == 0) {}

    bool done() const noexcept { return done_; }

    // Bytes not read yet, for sizing what a reader builds.
    std::size_t remaining() const noexcept { return rest_.size(); }

    std::string_view next() noexcept {
        if (done_) return {};
        const char* begin = rest_.data();
        const void* nul = rest_.empty() ? nullptr : std::memchr(begin, '\0', rest_.size());
        if (nul == nullptr) {
            done_ = true;
            const std::string_view last = rest_;
            rest_ = {};
            return last;
        }
        const std::size_t n = static_cast<std::size_t>(static_cast<const char*>(nul) - begin);
        rest_.remove_prefix(n + 1);
        return {begin, n};
    }

private:
    std::string_view rest_;
    bool done_ = false;
};

// Byte length of the code point that starts `text` (0 for empty text). The
// input is meant to be valid UTF-8; on anything else this still stays inside
// `text` and never splits off fewer than one byte.
inline std::size_t code_point_length(std::string_view text) noexcept {
    if (text.empty()) return 0;
    const auto lead = static_cast<unsigned char>(text[0]);
    std::size_t want = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : 1;
    if (want > text.size()) want = text.size();
    std::size_t n = 1;
    while (n < want && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) ++n;
    return n;
}

}  // namespace gu::core
