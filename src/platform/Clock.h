// Calendar time. Any thread.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace fodr::platform {

// The broken-down time of so many seconds since 1970-01-01 00:00 UTC, in UTC or in the local time zone.
std::tm BreakDownTime(int64_t seconds, bool utc);

struct LocalZone {
    std::string name;    // as it is called now, summer time told apart; may be empty
    int32_t biasMinutes; // local time plus this is UTC
};
LocalZone CurrentLocalZone();

} // namespace fodr::platform
