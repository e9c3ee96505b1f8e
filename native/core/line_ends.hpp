// Line-end normalisation on UTF-8 bytes: CR LF becomes LF, then every lone
// CR becomes LF. CR and LF never occur inside a multi-byte UTF-8 sequence, so
// doing this before decoding gives what decoding first would give.
#pragma once

#include <cstddef>

namespace gu::core {

// Rewrites data[0, size) in place; returns the new size.
std::size_t normalize_line_ends(char* data, std::size_t size) noexcept;

}  // namespace gu::core
