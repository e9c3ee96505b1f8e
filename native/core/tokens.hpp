// Pieces of git's NUL-separated output, read front to back without copying,
// and the byte length of a UTF-8 code point for the parsers that cut text
// at character boundaries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace gu::core {

// A piece of text in the code units the parsers read: bytes (git's UTF-8
// output, or a str of one byte per character) or the 2- and 4-byte units of
// wider strs, read in place. Every separator and marker the parsers look
// for is ASCII, which has the same value in every width.
template <class Unit>
using Piece = std::basic_string_view<Unit>;

// The first `u` among the `n` units at `p`, or null. Bytes go to memchr;
// wider units are compared sixteen bytes at a time where SSE2 is at hand
// (every x86-64), as a unit-by-unit loop costs the scan most of its time.
template <class Unit>
inline const Unit* find_unit(const Unit* p, std::size_t n, Unit u) noexcept {
    if constexpr (sizeof(Unit) == 1) {
        return static_cast<const Unit*>(n ? std::memchr(p, static_cast<unsigned char>(u), n) : nullptr);
    } else {
        std::size_t i = 0;
#if defined(__SSE2__)
        constexpr std::size_t lanes = 16 / sizeof(Unit);
        const auto equal = [](__m128i a, __m128i b) {
            if constexpr (sizeof(Unit) == 2)
                return _mm_cmpeq_epi16(a, b);
            else
                return _mm_cmpeq_epi32(a, b);
        };
        const __m128i needle = sizeof(Unit) == 2 ? _mm_set1_epi16(static_cast<short>(u))
                                                 : _mm_set1_epi32(static_cast<int>(u));
        for (; i + 2 * lanes <= n; i += 2 * lanes) {
            const __m128i a = equal(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i)), needle);
            const __m128i b = equal(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i + lanes)), needle);
            if (_mm_movemask_epi8(_mm_or_si128(a, b)) == 0) continue;
            const int in_a = _mm_movemask_epi8(a);
            if (in_a) return p + i + static_cast<unsigned>(__builtin_ctz(static_cast<unsigned>(in_a))) / sizeof(Unit);
            const int in_b = _mm_movemask_epi8(b);
            return p + i + lanes + static_cast<unsigned>(__builtin_ctz(static_cast<unsigned>(in_b))) / sizeof(Unit);
        }
#endif
        for (; i < n; ++i)
            if (p[i] == u) return p + i;
        return nullptr;
    }
}

// A hash of a piece's units, thirty-two bytes a round in four independent
// lanes (so the multiplications overlap): the table of paths needs spread,
// not strength, and wide units make the bytes many.
template <class Unit>
inline std::uint64_t hash_units(Piece<Unit> piece) noexcept {
    const auto* bytes = reinterpret_cast<const unsigned char*>(piece.data());
    std::size_t n = piece.size() * sizeof(Unit);
    std::uint64_t lane[4] = {0x9E3779B97F4A7C15ull ^ n, 0xC2B2AE3D27D4EB4Full, 0x165667B19E3779F9ull,
                             0x27D4EB2F165667C5ull};
    const auto mix = [](std::uint64_t& h, std::uint64_t word) {
        h = (h ^ word) * 0xBF58476D1CE4E5B9ull;
        h ^= h >> 31;
    };
    const auto word_at = [](const unsigned char* p, std::size_t size) {
        std::uint64_t word = 0;
        std::memcpy(&word, p, size);
        return word;
    };
    for (; n >= 32; n -= 32, bytes += 32)
        for (int k = 0; k < 4; ++k) mix(lane[k], word_at(bytes + 8 * k, 8));
    for (int k = 0; n > 0; ++k) {
        const std::size_t size = n < 8 ? n : 8;
        mix(lane[k], word_at(bytes, size));
        bytes += size;
        n -= size;
    }
    std::uint64_t h = lane[0] ^ ((lane[1] << 17) | (lane[1] >> 47)) ^ ((lane[2] << 31) | (lane[2] >> 33)) ^
                      ((lane[3] << 47) | (lane[3] >> 17));
    h *= 0x94D049BB133111EBull;
    return h ^ (h >> 29);
}

// A run of consecutive tokens: `text` split at every NUL gives exactly
// `count` tokens. count == 0 is no token at all (text is then empty), which
// differs from count == 1 with empty text: one empty token.
template <class Unit>
struct BasicTokenRun {
    Piece<Unit> text;
    std::size_t count = 0;
};

// Cuts text at every NUL. Every piece counts, empty ones included: text that
// ends with NUL gives an empty last token and the empty text gives one empty
// token. Reading past the last token gives the empty view.
template <class Unit>
class BasicTokenStream {
public:
    using unit_type = Unit;

    explicit BasicTokenStream(Piece<Unit> text) noexcept : rest_(text) {}
    explicit BasicTokenStream(BasicTokenRun<Unit> run) noexcept : rest_(run.text), done_(run.count == 0) {}

    bool done() const noexcept { return done_; }

    // Units not read yet.
    Piece<Unit> rest() const noexcept { return rest_; }

    Piece<Unit> next() noexcept {
        if (done_) return {};
        const Unit* begin = rest_.data();
        const Unit* nul = find_unit(begin, rest_.size(), Unit(0));
        if (nul == nullptr) {
            done_ = true;
            const Piece<Unit> last = rest_;
            rest_ = {};
            return last;
        }
        const std::size_t n = static_cast<std::size_t>(nul - begin);
        rest_.remove_prefix(n + 1);
        return {begin, n};
    }

private:
    Piece<Unit> rest_;
    bool done_ = false;
};

using TokenRun = BasicTokenRun<char>;
using TokenStream = BasicTokenStream<char>;

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

// Whether `bytes` is well-formed UTF-8 (no overlong forms, surrogates or
// values past U+10FFFF): what a strict decoder takes without replacing.
inline bool valid_utf8(std::string_view bytes) noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* const end = p + bytes.size();
    while (p < end) {
        if (end - p >= 8) {  // ASCII eight bytes at a time
            std::uint64_t word;
            std::memcpy(&word, p, 8);
            if ((word & 0x8080808080808080ull) == 0) {
                p += 8;
                continue;
            }
        }
        const unsigned char c = *p;
        if (c < 0x80) {
            ++p;
            continue;
        }
        std::size_t n;
        unsigned char lo = 0x80, hi = 0xBF;  // the range of the second byte
        if (c >= 0xC2 && c <= 0xDF) {
            n = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            n = 3;
            if (c == 0xE0) lo = 0xA0;
            if (c == 0xED) hi = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            n = 4;
            if (c == 0xF0) lo = 0x90;
            if (c == 0xF4) hi = 0x8F;
        } else {
            return false;
        }
        if (static_cast<std::size_t>(end - p) < n || p[1] < lo || p[1] > hi) return false;
        for (std::size_t i = 2; i < n; ++i)
            if ((p[i] & 0xC0) != 0x80) return false;
        p += n;
    }
    return true;
}

}  // namespace gu::core
