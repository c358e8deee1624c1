// Calendar time. Any thread.
#pragma once

#include <cstdint>
#include <ctime>

namespace fodr::platform {

// The broken-down time of so many seconds since 1970-01-01 00:00 UTC, in UTC or in the local time zone.
std::tm BreakDownTime(int64_t seconds, bool utc);

} // namespace fodr::platform
