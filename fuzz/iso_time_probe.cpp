// Differential probe for the ISO date/time parser: reads one text per line as
// hex (the empty line is the empty text), prints one result per line:
//   ok Y M D h m s us none                  no zone
//   ok Y M D h m s us SIGN h m s us         zone, SIGN is + or -
//   error KIND                              KIND as IsoError names it
// fuzz/iso_time_oracle.py builds this and compares with Python 3.10.
#include <cstdio>
#include <iostream>
#include <string>

#include "core/iso_time.hpp"

namespace {

const char* error_name(gu::core::IsoError e) {
    using gu::core::IsoError;
    switch (e) {
        case IsoError::none: return "none";
        case IsoError::invalid: return "invalid";
        case IsoError::offset_range: return "offset_range";
        case IsoError::year_range: return "year_range";
        case IsoError::month_range: return "month_range";
        case IsoError::day_range: return "day_range";
        case IsoError::hour_range: return "hour_range";
        case IsoError::minute_range: return "minute_range";
        case IsoError::second_range: return "second_range";
    }
    return "?";
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool unhex(const std::string& line, std::string& out) {
    out.clear();
    if (line.size() % 2 != 0) return false;
    for (std::size_t i = 0; i < line.size(); i += 2) {
        const int hi = hex_value(line[i]), lo = hex_value(line[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out.push_back(static_cast<char>(hi * 16 + lo));
    }
    return true;
}

}  // namespace

int main() {
    std::string line, text;
    while (std::getline(std::cin, line)) {
        if (!unhex(line, text)) {
            std::fprintf(stderr, "bad hex line: %s\n", line.c_str());
            return 2;
        }
        gu::core::IsoMoment m;
        const gu::core::IsoError e = gu::core::parse_iso_datetime(text, m);
        if (e != gu::core::IsoError::none) {
            std::printf("error %s\n", error_name(e));
            continue;
        }
        std::printf("ok %d %d %d %d %d %d %d ", m.year, m.month, m.day, m.hour, m.minute, m.second, m.microsecond);
        if (!m.has_offset)
            std::printf("none\n");
        else
            std::printf("%c %d %d %d %d\n", m.offset_sign < 0 ? '-' : '+', m.offset_hours, m.offset_minutes,
                        m.offset_seconds, m.offset_microseconds);
    }
    return 0;
}
