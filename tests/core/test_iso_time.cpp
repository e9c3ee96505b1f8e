#include <string>
#include <string_view>

#include "check.hpp"
#include "core/iso_time.hpp"

using namespace gu::core;
using namespace std::literals;
using E = IsoError;

namespace {

bool same(const IsoMoment& a, const IsoMoment& b) {
    return a.year == b.year && a.month == b.month && a.day == b.day && a.hour == b.hour && a.minute == b.minute &&
           a.second == b.second && a.microsecond == b.microsecond && a.has_offset == b.has_offset &&
           a.offset_sign == b.offset_sign && a.offset_hours == b.offset_hours &&
           a.offset_minutes == b.offset_minutes && a.offset_seconds == b.offset_seconds &&
           a.offset_microseconds == b.offset_microseconds;
}

struct Accepted {
    std::string_view text;
    IsoMoment want;  // year .. microsecond, has_offset, sign, offset h m s us
};

struct Refused {
    std::string_view text;
    IsoError why;
};

}  // namespace

TEST_CASE("iso time: texts 3.10 accepts, quirks included") {
    const Accepted table[] = {
        {"2026-09-01", {2026, 9, 1, 0, 0, 0, 0, false, 1, 0, 0, 0, 0}},
        {"2026-09-01T12", {2026, 9, 1, 12, 0, 0, 0, false, 1, 0, 0, 0, 0}},
        {"2026-09-01 12:30", {2026, 9, 1, 12, 30, 0, 0, false, 1, 0, 0, 0, 0}},
        {"2026-09-01T12:30:45.123", {2026, 9, 1, 12, 30, 45, 123000, false, 1, 0, 0, 0, 0}},
        {"9999-12-31T23:59:59.999999", {9999, 12, 31, 23, 59, 59, 999999, false, 1, 0, 0, 0, 0}},
        {"2000-02-29", {2000, 2, 29, 0, 0, 0, 0, false, 1, 0, 0, 0, 0}},
        // The separator is any one code point, however many bytes.
        {"2026-09-01\xc3\xa9" "12", {2026, 9, 1, 12, 0, 0, 0, false, 1, 0, 0, 0, 0}},
        {"2026-09-01\xf0\x9f\x98\x80" "12:30", {2026, 9, 1, 12, 30, 0, 0, false, 1, 0, 0, 0, 0}},
        {"2026-09-01\xed\xa0\x80" "12", {2026, 9, 1, 12, 0, 0, 0, false, 1, 0, 0, 0, 0}},  // lone surrogate
        {"2026-09-01\0" "01"sv, {2026, 9, 1, 1, 0, 0, 0, false, 1, 0, 0, 0, 0}},
        // A fraction after any field; a colon may stand for the last dot.
        {"2026-09-01T12.123", {2026, 9, 1, 12, 0, 0, 123000, false, 1, 0, 0, 0, 0}},
        {"2026-09-01T12:30.123456", {2026, 9, 1, 12, 30, 0, 123456, false, 1, 0, 0, 0, 0}},
        {"2026-09-01T12:30:45:123", {2026, 9, 1, 12, 30, 45, 123000, false, 1, 0, 0, 0, 0}},
        // One stray byte after a field: NUL at the end, anything before a zone.
        {"2026-09-01T12:30\0"sv, {2026, 9, 1, 12, 30, 0, 0, false, 1, 0, 0, 0, 0}},
        {"2026-09-01T12X+05:00", {2026, 9, 1, 12, 0, 0, 0, true, 1, 5, 0, 0, 0}},
        {"2026-09-01T12:30:45.+05:00", {2026, 9, 1, 12, 30, 45, 0, true, 1, 5, 0, 0, 0}},
        // Zones: fields up to 99 carry, zero seconds is UTC whatever the fraction.
        {"2026-09-01T12:30-05:30", {2026, 9, 1, 12, 30, 0, 0, true, -1, 5, 30, 0, 0}},
        {"2026-09-01T12:30+05:99", {2026, 9, 1, 12, 30, 0, 0, true, 1, 6, 39, 0, 0}},
        {"2026-09-01T12:30-00:00", {2026, 9, 1, 12, 30, 0, 0, true, 1, 0, 0, 0, 0}},
        {"2026-09-01T12:30-00:00:00.123456", {2026, 9, 1, 12, 30, 0, 0, true, 1, 0, 0, 0, 0}},
        {"2026-09-01T12:30-00:00:01:000001", {2026, 9, 1, 12, 30, 0, 0, true, -1, 0, 0, 1, 1}},
        {"2026-09-01T00:00+23:59:59.999999", {2026, 9, 1, 0, 0, 0, 0, true, 1, 23, 59, 59, 999999}},
    };
    for (const Accepted& a : table) {
        IsoMoment got;
        const IsoError e = parse_iso_datetime(a.text, got);
        if (e != E::none || !same(got, a.want)) check::fail(__FILE__, __LINE__, "accepts " + std::string(a.text));
        const auto value = parse_iso_datetime(a.text);
        CHECK(value && same(*value, a.want));
    }
}

TEST_CASE("iso time: refused texts, with the reason 3.10 would give first") {
    const Refused table[] = {
        // Forms only later Pythons take.
        {"2026-09-01T12:30Z", E::invalid}, {"20260901", E::invalid}, {"2026-W35-1", E::invalid},
        {"2026-244", E::invalid}, {"2026-09-01T1230", E::invalid}, {"2026-09-01T12:30+0530", E::invalid},
        {"2026-09-01T12:30+05", E::invalid}, {"2026-09-01T12:30:45,123", E::invalid},
        {"2026-09-01T12:30:45.1234", E::invalid}, {"2026-09-01T12:30+05:00:00.123", E::invalid},
        // Short, empty or stray parts.
        {"", E::invalid}, {"2026-09-0", E::invalid}, {"2026-09-01T", E::invalid},
        {"2026-09-01\xc3\xa9", E::invalid}, {"2026-09-01T1", E::invalid}, {"2026-09-01T12:", E::invalid},
        {"2026-09-01T12\0\0"sv, E::invalid}, {"2026-09-01T-05:00", E::invalid},
        {"2026-09-01T12:30+05:00+01:00", E::invalid}, {"\xef\xbc\x92" "026-09-01", E::invalid},
        // Not UTF-8: a broken separator, or a lone high byte where 3.10 takes any byte.
        {"2026-09-01\x80" "12", E::invalid}, {"2026-09-01\xc3" "12", E::invalid},
        {"2026-09-01\xc0\x80" "12", E::invalid}, {"2026-09-01\xe0\x80\x80" "12", E::invalid},
        {"2026-09-01\xf4\x90\x80\x80" "12", E::invalid}, {"2026-09-01\xf5\x80\x80\x80" "12", E::invalid},
        {"2026-09-01\xf0\x9f\x98", E::invalid}, {"2026-09-01T12\x80+05:00", E::invalid},
        // Ranges, checked zone first, then date, then clock.
        {"0000-13-32T24:00+24:00", E::offset_range}, {"2026-09-01T00:00-24:00", E::offset_range},
        {"2026-09-01T00:00+23:60", E::offset_range}, {"0000-13-32T24:00", E::year_range},
        {"2026-13-32", E::month_range}, {"2026-00-01", E::month_range}, {"1900-02-29", E::day_range},
        {"2026-04-31", E::day_range}, {"2026-09-00", E::day_range}, {"2026-09-01T24:60", E::hour_range},
        {"2026-09-01T23:60:60", E::minute_range}, {"2026-09-01T23:59:60", E::second_range},
    };
    for (const Refused& r : table) {
        IsoMoment got;
        if (parse_iso_datetime(r.text, got) != r.why) check::fail(__FILE__, __LINE__, "refuses " + std::string(r.text));
        CHECK(!parse_iso_datetime(r.text));
    }
}
