#include "core/iso_time.hpp"

#include <cstddef>

#include "core/utf8_lead.hpp"

namespace gu::core {

namespace {

constexpr long long kMicrosPerSecond = 1'000'000;
constexpr long long kMicrosPerHour = 3'600 * kMicrosPerSecond;
constexpr long long kMicrosPerDay = 24 * kMicrosPerHour;

// Reads `count` ASCII digits at s[at]: 3.10 takes no other digits.
bool read_digits(std::string_view s, std::size_t at, std::size_t count, int& value) noexcept {
    if (at + count > s.size()) return false;
    value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned d = static_cast<unsigned char>(s[at + i]) - unsigned{'0'};
        if (d > 9) return false;
        value = value * 10 + static_cast<int>(d);
    }
    return true;
}

// Byte length of the code point `s` starts with, 0 when it is not UTF-8.
// Surrogates pass: 3.10 takes a lone one as the separator.
std::size_t separator_length(std::string_view s) noexcept {
    const Utf8Lead lead = utf8_lead(static_cast<unsigned char>(s[0]), Surrogates::pass);
    if (s.size() < lead.length) return 0;
    unsigned lo = lead.second_lo, hi = lead.second_hi;
    for (std::size_t i = 1; i < lead.length; ++i) {
        const unsigned c = static_cast<unsigned char>(s[i]);
        if (c < lo || c > hi) return 0;
        lo = 0x80;
        hi = 0xBF;
    }
    return lead.length;
}

enum class Tail { clean, extra, bad };

// HH[:MM[:SS]][.FFF[FFF]] as 3.10 reads it from `s`, which the byte `after`
// follows in the text (a zone's sign, or NUL for the end). After each field
// the next byte is taken unchecked when it is the last of `s`, or `after`:
// a NUL there is `clean`, anything else `extra` (fine before a zone only).
// A third colon starts the fraction like a dot; a fraction may follow any
// field. fields = {hour, minute, second, microsecond}.
Tail read_clock(std::string_view s, char after, int (&fields)[4]) noexcept {
    const std::size_t n = s.size();
    std::size_t p = 0;
    for (int i = 0; i < 3; ++i) {
        if (!read_digits(s, p, 2, fields[i])) return Tail::bad;
        const char c = p + 2 < n ? s[p + 2] : after;
        p += 3;
        if (p >= n) {
            // 3.10 only ever sees ASCII here; a lone high byte is not UTF-8.
            if (static_cast<unsigned char>(c) >= 0x80) return Tail::bad;
            return c == '\0' ? Tail::clean : Tail::extra;
        }
        if (c == '.') break;
        if (c != ':') return Tail::bad;
    }
    const std::size_t rest = n - p;
    if (rest != 3 && rest != 6) return Tail::bad;
    if (!read_digits(s, p, rest, fields[3])) return Tail::bad;
    if (rest == 3) fields[3] *= 1000;
    return after == '\0' ? Tail::clean : Tail::extra;
}

// Everything after the separator: a clock, then maybe a zone that starts at
// the first sign.
IsoError parse_time(std::string_view t, IsoMoment& m) noexcept {
    int clock[4] = {};
    const std::size_t sign = t.find_first_of("+-");
    if (sign == std::string_view::npos) {
        if (read_clock(t, '\0', clock) != Tail::clean) return IsoError::invalid;
    } else if (read_clock(t.substr(0, sign), t[sign], clock) == Tail::bad) {
        return IsoError::invalid;
    }
    m.hour = clock[0];
    m.minute = clock[1];
    m.second = clock[2];
    m.microsecond = clock[3];
    if (sign == std::string_view::npos) return IsoError::none;

    const std::string_view zone = t.substr(sign + 1);
    int z[4] = {};
    if (zone.size() != 5 && zone.size() != 8 && zone.size() != 15) return IsoError::invalid;
    if (read_clock(zone, '\0', z) != Tail::clean) return IsoError::invalid;

    // Fields up to 99 each, carried; zero whole seconds is UTC, fraction or not.
    m.has_offset = true;
    const long long seconds = z[0] * 3'600LL + z[1] * 60LL + z[2];
    if (seconds == 0) return IsoError::none;
    long long us = seconds * kMicrosPerSecond + z[3];
    if (us >= kMicrosPerDay) return IsoError::offset_range;
    m.offset_sign = t[sign] == '-' ? -1 : 1;
    m.offset_hours = static_cast<int>(us / kMicrosPerHour);
    us %= kMicrosPerHour;
    m.offset_minutes = static_cast<int>(us / (60 * kMicrosPerSecond));
    us %= 60 * kMicrosPerSecond;
    m.offset_seconds = static_cast<int>(us / kMicrosPerSecond);
    m.offset_microseconds = static_cast<int>(us % kMicrosPerSecond);
    return IsoError::none;
}

int days_in_month(int year, int month) noexcept {
    static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return month == 2 && leap ? 29 : kDays[month - 1];
}

}  // namespace

IsoError parse_iso_datetime(std::string_view utf8, IsoMoment& out) noexcept {
    const std::string_view s = utf8;
    out = IsoMoment{};
    if (s.size() < 10 || !read_digits(s, 0, 4, out.year) || s[4] != '-' || !read_digits(s, 5, 2, out.month) ||
        s[7] != '-' || !read_digits(s, 8, 2, out.day))
        return IsoError::invalid;
    if (s.size() > 10) {
        const std::size_t sep = separator_length(s.substr(10));
        if (sep == 0) return IsoError::invalid;
        if (const IsoError e = parse_time(s.substr(10 + sep), out); e != IsoError::none) return e;
    }
    if (out.year < 1) return IsoError::year_range;
    if (out.month < 1 || out.month > 12) return IsoError::month_range;
    if (out.day < 1 || out.day > days_in_month(out.year, out.month)) return IsoError::day_range;
    if (out.hour > 23) return IsoError::hour_range;
    if (out.minute > 59) return IsoError::minute_range;
    if (out.second > 59) return IsoError::second_range;
    return IsoError::none;
}

std::optional<IsoMoment> parse_iso_datetime(std::string_view utf8) noexcept {
    IsoMoment m;
    if (parse_iso_datetime(utf8, m) != IsoError::none) return std::nullopt;
    return m;
}

}  // namespace gu::core
