// Pieces of git's NUL-separated output, read front to back without copying,
// and the byte length of a UTF-8 code point for the parsers that cut text
// at character boundaries.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "core/utf8_lead.hpp"

// Every x86-64 processor has SSE2: GCC and Clang say so with __SSE2__,
// MSVC with _M_X64 (or _M_IX86_FP of 2 on 32-bit x86).
#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#define GU_HAVE_SSE2 1
#include <emmintrin.h>
#include <xmmintrin.h>
#elif defined(__ARM_NEON) && defined(__aarch64__)
#define GU_HAVE_NEON 1
#include <arm_neon.h>
#endif

namespace gu::core {

// Asks for the memory at `address` ahead of its use: a hint, never a fault,
// wherever it points.
inline void prefetch(std::uintptr_t address) noexcept {
#if defined(__GNUC__)
    __builtin_prefetch(reinterpret_cast<const void*>(address));
#elif defined(GU_HAVE_SSE2)
    _mm_prefetch(reinterpret_cast<const char*>(address), _MM_HINT_T0);
#else
    (void)address;
#endif
}

// A piece of text in the code units the parsers read: bytes (git's UTF-8
// output, or a str of one byte per character) or the 2- and 4-byte units of
// wider strs, read in place. Every separator and marker the parsers look
// for is ASCII, which has the same value in every width.
template <class Unit>
using Piece = std::basic_string_view<Unit>;

// Finds one unit value again and again, front to back. The text is compared
// once, sixty-four units at a time, into a mask of the value's places in
// each block; each next place then costs a count of trailing zeros, however
// far it is. The scanners ask for the next separator after every line or
// token, most of them short, where a search started afresh each time would
// spend its time setting up and mispredicting the end of its loop.
template <class Unit>
class UnitFinder {
public:
    UnitFinder() noexcept = default;
    UnitFinder(const Unit* begin, std::size_t size, Unit u) noexcept : begin_(begin), size_(size), unit_(u) {}

    // The next place of the value after the last one this returned (the
    // first place at first), or null when there is none.
    const Unit* next() noexcept {
        while (bits_ == 0) {
            if (block_ >= size_) return nullptr;
            load();
            block_ += 64;
        }
        const auto at = static_cast<std::size_t>(std::countr_zero(bits_));
        bits_ &= bits_ - 1;
        return begin_ + (block_ - 64) + at;
    }

private:
    static constexpr std::size_t prefetch_units = 1024;

    const Unit* begin_ = nullptr;
    std::size_t size_ = 0;
    Unit unit_{};
    std::size_t block_ = 0;   // offset of the block after the one in bits_
    std::uint64_t bits_ = 0;  // places in that block not returned yet

    void load() noexcept {
        const Unit* p = begin_ + block_;
        const std::size_t n = size_ - block_;
        // Wide strs are megabytes of units read once: ask for the blocks
        // ahead before they are needed.
        prefetch(reinterpret_cast<std::uintptr_t>(p) + prefetch_units * sizeof(Unit));
        bits_ = n >= 64 ? full_mask(p) : tail_mask(p, n);
    }

    std::uint64_t tail_mask(const Unit* p, std::size_t n) const noexcept {
        std::uint64_t m = 0;
        for (std::size_t i = 0; i < n; ++i) m |= std::uint64_t{p[i] == unit_} << i;
        return m;
    }

#if defined(GU_HAVE_SSE2)
    // Sixteen units of the block at `p` to sixteen bits.
    std::uint64_t mask16(const Unit* p) const noexcept {
        const auto load = [p](std::size_t i) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p) + i); };
        if constexpr (sizeof(Unit) == 1) {
            const __m128i u = _mm_set1_epi8(static_cast<char>(unit_));
            return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(load(0), u)));
        } else if constexpr (sizeof(Unit) == 2) {
            const __m128i u = _mm_set1_epi16(static_cast<short>(unit_));
            const __m128i packed = _mm_packs_epi16(_mm_cmpeq_epi16(load(0), u), _mm_cmpeq_epi16(load(1), u));
            return static_cast<std::uint32_t>(_mm_movemask_epi8(packed));
        } else {
            const __m128i u = _mm_set1_epi32(static_cast<int>(unit_));
            const __m128i lo = _mm_packs_epi32(_mm_cmpeq_epi32(load(0), u), _mm_cmpeq_epi32(load(1), u));
            const __m128i hi = _mm_packs_epi32(_mm_cmpeq_epi32(load(2), u), _mm_cmpeq_epi32(load(3), u));
            return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(lo, hi)));
        }
    }

    std::uint64_t full_mask(const Unit* p) const noexcept {
        return mask16(p) | mask16(p + 16) << 16 | mask16(p + 32) << 32 | mask16(p + 48) << 48;
    }
#elif defined(GU_HAVE_NEON)
    // Sixteen units of the block at `p` as sixteen bytes: 0xFF where the
    // unit is the value, else 0 (compared whole, then narrowed).
    uint8x16_t equal16(const Unit* p) const noexcept {
        if constexpr (sizeof(Unit) == 1) {
            const uint8x16_t u = vdupq_n_u8(static_cast<std::uint8_t>(unit_));
            return vceqq_u8(vld1q_u8(reinterpret_cast<const std::uint8_t*>(p)), u);
        } else if constexpr (sizeof(Unit) == 2) {
            const auto* q = reinterpret_cast<const std::uint16_t*>(p);
            const uint16x8_t u = vdupq_n_u16(static_cast<std::uint16_t>(unit_));
            return vcombine_u8(vmovn_u16(vceqq_u16(vld1q_u16(q), u)), vmovn_u16(vceqq_u16(vld1q_u16(q + 8), u)));
        } else {
            const auto* q = reinterpret_cast<const std::uint32_t*>(p);
            const uint32x4_t u = vdupq_n_u32(static_cast<std::uint32_t>(unit_));
            const auto eight = [q, u](std::size_t i) {
                return vcombine_u16(vmovn_u32(vceqq_u32(vld1q_u32(q + i), u)),
                                    vmovn_u32(vceqq_u32(vld1q_u32(q + i + 4), u)));
            };
            return vcombine_u8(vmovn_u16(eight(0)), vmovn_u16(eight(8)));
        }
    }

    // Each byte of a comparison keeps its own one of eight bits, and three
    // rounds of pairwise sums gather the sixty-four into one word, unit i
    // at bit i.
    std::uint64_t full_mask(const Unit* p) const noexcept {
        const uint8x16_t bit = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
        const auto bits = [this, p, bit](std::size_t i) { return vandq_u8(equal16(p + 16 * i), bit); };
        const uint8x16_t sum = vpaddq_u8(vpaddq_u8(bits(0), bits(1)), vpaddq_u8(bits(2), bits(3)));
        return vgetq_lane_u64(vreinterpretq_u64_u8(vpaddq_u8(sum, sum)), 0);
    }
#else
    std::uint64_t full_mask(const Unit* p) const noexcept { return tail_mask(p, 64); }
#endif
};

// Whether every unit of `piece` is ASCII. One OR over all of them, which
// the compiler vectorises: most pieces are, and none is long.
template <class Unit>
inline bool is_ascii(Piece<Unit> piece) noexcept {
    std::uint32_t any = 0;
    for (const Unit c : piece) any |= static_cast<std::uint32_t>(static_cast<std::make_unsigned_t<Unit>>(c));
    return any < 0x80;
}

// Whether `a` sorts before `b`, unit by unit, a prefix first. The first
// difference is found sixteen bytes at a time: sorted paths share long
// prefixes (their directories).
template <class Unit>
inline bool precedes(Piece<Unit> a, Piece<Unit> b) noexcept {
    const std::size_t units = a.size() < b.size() ? a.size() : b.size();
    const std::size_t n = units * sizeof(Unit);
    const auto* pa = reinterpret_cast<const unsigned char*>(a.data());
    const auto* pb = reinterpret_cast<const unsigned char*>(b.data());
    std::size_t i = 0;
#if defined(GU_HAVE_SSE2)
    for (; i + 16 <= n; i += 16) {
        const int same = _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pa + i)),
                                                          _mm_loadu_si128(reinterpret_cast<const __m128i*>(pb + i))));
        if (same != 0xFFFF) {
            i += static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(~same)));
            break;
        }
    }
#endif
    while (i < n && pa[i] == pb[i]) ++i;
    if (i >= n) return a.size() < b.size();
    const std::size_t k = i / sizeof(Unit);
    using U = std::make_unsigned_t<Unit>;
    return static_cast<U>(a[k]) < static_cast<U>(b[k]);
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

    explicit BasicTokenStream(Piece<Unit> text) noexcept : rest_(text), nuls_(text.data(), text.size(), Unit(0)) {}
    explicit BasicTokenStream(BasicTokenRun<Unit> run) noexcept
        : rest_(run.text), nuls_(run.text.data(), run.text.size(), Unit(0)), done_(run.count == 0) {}

    bool done() const noexcept { return done_; }

    // Units not read yet.
    Piece<Unit> rest() const noexcept { return rest_; }

    Piece<Unit> next() noexcept {
        if (done_) return {};
        const Unit* begin = rest_.data();
        const Unit* nul = nuls_.next();
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
    UnitFinder<Unit> nuls_;
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
#if defined(GU_HAVE_SSE2)
        if (end - p >= 64) {  // ASCII sixty-four bytes at a time
            const auto* v = reinterpret_cast<const __m128i*>(p);
            const __m128i any = _mm_or_si128(_mm_or_si128(_mm_loadu_si128(v), _mm_loadu_si128(v + 1)),
                                             _mm_or_si128(_mm_loadu_si128(v + 2), _mm_loadu_si128(v + 3)));
            if (_mm_movemask_epi8(any) == 0) {
                p += 64;
                continue;
            }
        }
        if (end - p >= 16) {  // ASCII sixteen bytes at a time, then to the first byte past it
            const int high = _mm_movemask_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
            if (high == 0) {
                p += 16;
                continue;
            }
            p += std::countr_zero(static_cast<unsigned>(high));
        }
#else
        if (end - p >= 8) {  // ASCII eight bytes at a time
            std::uint64_t word;
            std::memcpy(&word, p, 8);
            if ((word & 0x8080808080808080ull) == 0) {
                p += 8;
                continue;
            }
        }
#endif
        if (*p < 0x80) {
            ++p;
            continue;
        }
        // Sequences one after another while they last: non-Latin names run
        // to many characters, each of which would start the checks above
        // again for nothing.
        do {
            const auto [n, lo, hi] = utf8_lead(*p, Surrogates::refused);
            // The second byte's range in one unsigned comparison.
            if (n == 0 || static_cast<std::size_t>(end - p) < n ||
                static_cast<unsigned char>(p[1] - lo) > static_cast<unsigned char>(hi - lo))
                return false;
            for (std::size_t i = 2; i < n; ++i)
                if ((p[i] & 0xC0) != 0x80) return false;
            p += n;
        } while (p < end && *p >= 0x80);
    }
    return true;
}

// The code points of well-formed UTF-8 (valid_utf8 holds): how many there
// are and the widest of the ranges CPython stores strs in that they reach
// (0x7F, 0xFF, 0xFFFF or 0x10FFFF), both read off the lead bytes.
struct Utf8Shape {
    std::size_t length = 0;
    std::uint32_t widest = 0x7F;
};

inline Utf8Shape utf8_shape(std::string_view valid) noexcept {
    Utf8Shape shape;
    unsigned char top = 0;
    for (const char c : valid) {
        const auto b = static_cast<unsigned char>(c);
        shape.length += (b & 0xC0) != 0x80;
        if (b > top) top = b;
    }
    shape.widest = top < 0x80 ? 0x7F : top < 0xC4 ? 0xFF : top < 0xF0 ? 0xFFFF : 0x10FFFF;
    return shape;
}

// Decodes well-formed UTF-8 into `out`, one `Out` per code point; `Out`
// must hold the widest (utf8_shape).
template <class Out>
void decode_utf8(std::string_view valid, Out* out) noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(valid.data());
    const auto* const end = p + valid.size();
    while (p < end) {
        const std::uint32_t b = *p;
        std::uint32_t c;
        if (b < 0x80) {
            c = b;
            p += 1;
        } else if (b < 0xE0) {
            c = (b & 0x1F) << 6 | (p[1] & 0x3Fu);
            p += 2;
        } else if (b < 0xF0) {
            c = (b & 0x0F) << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3Fu);
            p += 3;
        } else {
            c = (b & 0x07) << 18 | (p[1] & 0x3Fu) << 12 | (p[2] & 0x3Fu) << 6 | (p[3] & 0x3Fu);
            p += 4;
        }
        *out++ = static_cast<Out>(c);
    }
}

}  // namespace gu::core
