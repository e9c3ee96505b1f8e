// What the first byte of a UTF-8 sequence says about the sequence, for the
// readers that take only well-formed UTF-8 (or that with surrogates too).
#pragma once

#include <cstddef>

namespace gu::core {

// Whether the three-byte forms of U+D800..U+DFFF count as UTF-8.
enum class Surrogates : bool { refused, pass };

// The sequence a byte starts: its length in bytes (1 for ASCII; 0 for a
// byte that starts none: a continuation byte, C0, C1, F5 to FF) and the
// range its second byte must lie in, which rules out overlong forms, values
// past U+10FFFF and, when refused, surrogates. Every later byte lies in
// 80..BF.
struct Utf8Lead {
    std::size_t length;
    unsigned char second_lo = 0x80, second_hi = 0xBF;
};

constexpr Utf8Lead utf8_lead(unsigned char lead, Surrogates surrogates) noexcept {
    if (lead < 0x80) return {1};
    if (lead >= 0xC2 && lead <= 0xDF) return {2};
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (lead == 0xE0) return {3, 0xA0};
        if (lead == 0xED && surrogates == Surrogates::refused) return {3, 0x80, 0x9F};
        return {3};
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (lead == 0xF0) return {4, 0x90};
        if (lead == 0xF4) return {4, 0x80, 0x8F};
        return {4};
    }
    return {0};
}

}  // namespace gu::core
