// unquote never grows its input, leaves text without backslashes alone and
// reads back any byte string written as octal escapes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/unquote.hpp"

using namespace gu::core;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string out = "x";
    const bool ok = unquote(text, out);
    if (ok && out.size() > text.size() + 1) std::abort();
    if (text.find('\\') == std::string_view::npos && (!ok || out.substr(1) != text)) std::abort();

    std::string octal;
    for (std::size_t i = 0; i < size; ++i) {
        char esc[5];
        std::snprintf(esc, sizeof esc, "\\%03o", static_cast<unsigned>(data[i]));
        octal.append(esc, 4);
    }
    std::string back;
    if (!unquote(octal, back) || back != text) std::abort();
    return 0;
}
