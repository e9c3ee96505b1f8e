// The ISO date/time text that Python 3.10's datetime.fromisoformat reads, and
// nothing more, whatever Python runs us: later versions also take "Z", basic
// forms without separators, week dates and so on, and those stay refused so
// the same text means the same thing everywhere.
//
// Text accepted, in bytes (letters Y M D H F = ASCII digits; x = any ASCII byte
// but + and -):
//
//   YYYY-MM-DD                        the date alone
//   YYYY-MM-DD S CLOCK [ZONE]         S = any one code point, non-ASCII too
//
//   CLOCK = HH | HH:MM | HH:MM:SS              optionally followed by:
//           x (only before a ZONE; with no ZONE only a NUL byte is taken)
//           or .FFF / .FFFFFF (after HH:MM:SS the dot may also be a colon)
//   ZONE  = (+|-) HH:MM | HH:MM:SS | HH:MM:SS(.|:)FFFFFF
//
// These are 3.10's own quirks (its C parser), kept because they are what
// 3.10 returns: "12.5" is not a fraction but "12.500" is; "12X+05:00" is
// 12:00 at +05:00; zone minutes and seconds may be 60..99 and carry; a zone of
// zero hours, minutes and seconds is UTC even with a fraction.
//
// Then: year 1..9999, a real calendar day, hour 0..23, minute and second
// 0..59, and the zone strictly inside +-24 hours.
#pragma once

#include <optional>
#include <string_view>

namespace gu::core {

struct IsoMoment {
    int year = 0, month = 0, day = 0;
    int hour = 0, minute = 0, second = 0, microsecond = 0;
    bool has_offset = false;
    // The offset as a sign and a magnitude carried into range (seconds and
    // minutes 0..59). A zero offset, UTC, has sign +1.
    int offset_sign = 1;
    int offset_hours = 0, offset_minutes = 0, offset_seconds = 0, offset_microseconds = 0;
};

// Why a text was refused, in the order 3.10 checks, so a caller can raise the
// same ValueError message: the text's form first, then the zone, then the
// date fields, then the clock fields.
enum class IsoError {
    none,
    invalid,       // not the grammar above
    offset_range,  // zone of 24 hours or more
    year_range,    // year 0000
    month_range,
    day_range,  // no such day in that month
    hour_range,
    minute_range,
    second_range,
};

// `utf8` is the whole text, already stripped, as UTF-8. A lone surrogate
// (which 3.10 takes as the separator and nowhere else) may come in its
// three-byte "surrogatepass" form or be replaced by any ASCII byte; anywhere
// else the text is refused either way. Bytes that are not UTF-8 are refused.
// On none, `out` holds the moment; otherwise its contents mean nothing.
IsoError parse_iso_datetime(std::string_view utf8, IsoMoment& out) noexcept;

std::optional<IsoMoment> parse_iso_datetime(std::string_view utf8) noexcept;

}  // namespace gu::core
