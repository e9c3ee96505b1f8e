// libFuzzer target for the ISO date/time parser: any bytes must parse without
// touching memory out of bounds, and an accepted text must give a moment
// datetime can hold.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/iso_time.hpp"

namespace {

bool in(int v, int lo, int hi) { return lo <= v && v <= hi; }

int days_in_month(int y, int m) {
    static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && y % 4 == 0 && (y % 100 != 0 || y % 400 == 0) ? 29 : kDays[m - 1];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    gu::core::IsoMoment m;
    const gu::core::IsoError e = gu::core::parse_iso_datetime(text, m);
    const auto value = gu::core::parse_iso_datetime(text);
    if ((e == gu::core::IsoError::none) != value.has_value()) std::abort();
    if (!value) return 0;
    const gu::core::IsoMoment& v = *value;
    bool ok = in(v.year, 1, 9999) && in(v.month, 1, 12) && in(v.day, 1, days_in_month(v.year, v.month)) &&
              in(v.hour, 0, 23) && in(v.minute, 0, 59) && in(v.second, 0, 59) && in(v.microsecond, 0, 999999) &&
              (v.offset_sign == 1 || v.offset_sign == -1) && in(v.offset_hours, 0, 23) && in(v.offset_minutes, 0, 59) &&
              in(v.offset_seconds, 0, 59) && in(v.offset_microseconds, 0, 999999);
    // No zone means no offset; a zero offset is UTC and has sign +1.
    const bool zero =
        v.offset_hours == 0 && v.offset_minutes == 0 && v.offset_seconds == 0 && v.offset_microseconds == 0;
    if (!v.has_offset) ok = ok && zero && v.offset_sign == 1;
    if (zero) ok = ok && v.offset_sign == 1;
    // Accepted text is the 10-byte date and, if more, a separator and ASCII.
    if (size > 10) {
        std::size_t sep = 1;
        if (data[10] >= 0xF0)
            sep = 4;
        else if (data[10] >= 0xE0)
            sep = 3;
        else if (data[10] >= 0x80)
            sep = 2;
        ok = ok && size > 10 + sep;
        for (std::size_t i = 10 + sep; i < size; ++i) ok = ok && data[i] < 0x80;
    }
    if (!ok) std::abort();
    return 0;
}
