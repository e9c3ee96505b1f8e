// Names git prints inside double quotes carry C-style escapes: \" \\ \t \n
// and the like, and \ooo octal bytes for everything outside printable ASCII.
#pragma once

#include <string>
#include <string_view>

namespace gu::core {

// The escapes that stand for control bytes, in the order of the namespace's
// escape mapping, which the binding makes from this table and checks
// against it. Any other escaped character stands for itself.
struct ControlEscape {
    char letter, byte;
};
inline constexpr ControlEscape control_escapes[] = {
    {'a', '\a'}, {'b', '\b'}, {'f', '\f'}, {'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'v', '\v'},
};

// Appends the bytes `text` stands for to `out`, left to right: a backslash
// and three octal digits is one byte, a backslash and any other character
// is that character (a, b, f, n, r, t, v give their control bytes), and a
// backslash at the very end stays. Returns false for an octal value above
// 0377; `out` then holds a partial result.
bool unquote(std::string_view text, std::string& out);

}  // namespace gu::core
