#include "core/patch.hpp"

namespace gu::core {

std::optional<Span> make_span(std::int64_t start, std::int64_t new_count, std::int64_t old_count) noexcept {
    constexpr std::int64_t int64_min = std::numeric_limits<std::int64_t>::min();
    if (new_count == 0) {
        const std::int64_t at = start > 1 ? start : 1;
        return Span{at, at, false};
    }
    // end = start + (new_count - 1), refused where a step would overflow;
    // the caller then works it out with unbounded integers.
    if (new_count == int64_min) return std::nullopt;
    const std::int64_t length = new_count - 1;
    if ((length > 0 && start > detail::int64_max - length) || (length < 0 && start < int64_min - length))
        return std::nullopt;
    return Span{start, start + length, old_count == 0};
}

}  // namespace gu::core
