#include "core/unquote.hpp"

#include <cstring>

#include "core/tokens.hpp"

namespace gu::core {

namespace {

bool is_octal(char c) noexcept { return c >= '0' && c <= '7'; }

char control_byte(char c) noexcept {
    for (const ControlEscape& e : control_escapes)
        if (e.letter == c) return e.byte;
    return c;
}

}  // namespace

bool unquote(std::string_view text, std::string& out) {
    out.reserve(out.size() + text.size());
    while (!text.empty()) {
        const void* hit = std::memchr(text.data(), '\\', text.size());
        if (hit == nullptr) {
            out.append(text);
            return true;
        }
        const std::size_t at = static_cast<std::size_t>(static_cast<const char*>(hit) - text.data());
        out.append(text.substr(0, at));
        const std::string_view rest = text.substr(at + 1);
        if (rest.empty()) {  // a lone backslash at the end escapes nothing
            out.push_back('\\');
            return true;
        }
        if (rest.size() >= 3 && is_octal(rest[0]) && is_octal(rest[1]) && is_octal(rest[2])) {
            const int value = (rest[0] - '0') * 64 + (rest[1] - '0') * 8 + (rest[2] - '0');
            if (value > 0xFF) return false;
            out.push_back(static_cast<char>(value));
            text = rest.substr(3);
            continue;
        }
        const std::size_t n = code_point_length(rest);
        if (n == 1)
            out.push_back(control_byte(rest[0]));
        else
            out.append(rest.substr(0, n));
        text = rest.substr(n);
    }
    return true;
}

}  // namespace gu::core
