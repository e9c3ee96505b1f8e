#include "core/line_ends.hpp"

#include <cstring>

namespace gu::core {

std::size_t normalize_line_ends(char* data, std::size_t size) noexcept {
    if (size == 0) return 0;
    char* cr = static_cast<char*>(std::memchr(data, '\r', size));
    if (cr == nullptr) return size;
    const char* end = data + size;
    const char* in = cr;
    char* out = cr;
    while (in < end) {
        const char* next = static_cast<const char*>(std::memchr(in, '\r', static_cast<std::size_t>(end - in)));
        if (next == nullptr) next = end;
        const std::size_t run = static_cast<std::size_t>(next - in);
        if (out != in) std::memmove(out, in, run);
        out += run;
        in = next;
        if (in == end) break;
        *out++ = '\n';
        in += (in + 1 < end && in[1] == '\n') ? 2 : 1;
    }
    return static_cast<std::size_t>(out - data);
}

}  // namespace gu::core
