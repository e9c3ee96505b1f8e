// valid_utf8 against a plain decoder of the same rules (its ASCII runs are
// skipped sixty-four, sixteen and eight bytes at a time); what it accepts
// decodes, through utf8_shape and decode_utf8, to code points that encode
// back to the input, in the narrowest range that holds them.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/tokens.hpp"

using namespace gu::core;

namespace {

// The code points of `bytes`, or false where a sequence is not the shortest
// form of a scalar value.
bool plain_decode(std::string_view bytes, std::u32string& out) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t n = bytes.size();
    for (std::size_t i = 0; i < n;) {
        const unsigned char b = p[i];
        std::size_t len = b < 0x80 ? 1 : (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3 : (b & 0xF8) == 0xF0 ? 4 : 0;
        if (len == 0 || i + len > n) return false;
        char32_t c = len == 1 ? b : len == 2 ? b & 0x1F : len == 3 ? b & 0x0F : b & 0x07;
        for (std::size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            c = c << 6 | (p[i + k] & 0x3F);
        }
        const char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (c < least[len] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
        out.push_back(c);
        i += len;
    }
    return true;
}

std::string encode(const std::u32string& text) {
    std::string out;
    for (const char32_t c : text) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | c >> 6);
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | c >> 12);
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | c >> 18);
            out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::u32string want;
    const bool valid = plain_decode(bytes, want);
    if (valid_utf8(bytes) != valid) std::abort();
    if (!valid) return 0;
    const Utf8Shape shape = utf8_shape(bytes);
    std::u32string got(shape.length, U'\0');
    decode_utf8(bytes, got.data());
    char32_t top = 0;
    for (const char32_t c : want) top = c > top ? c : top;
    const std::uint32_t widest = top < 0x80 ? 0x7F : top < 0x100 ? 0xFF : top < 0x10000 ? 0xFFFF : 0x10FFFF;
    if (got != want || shape.widest != widest || encode(got) != bytes) std::abort();
    return 0;
}
