// Texts of times, durations and sizes, as the log shows them. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fodr::StringUtils {

// Milliseconds since 1970-01-01 00:00 UTC.
int64_t WallClockMS();

// "2024-02-29 13:05:07.042" in local time, "2024-02-29T12:05:07.042Z" in UTC. The length stored.
int FormatTimeStamp(char *buffer, size_t size, bool utc, int64_t unixMS);
int FormatTimeStamp(char *buffer, size_t size, bool utc); // of now
std::string TimeStamp(bool utc);                          // of now

// "1:02:03.500", "12.5s", "42ms", "1 days 0:00:00". The fraction is cut to `decimals` digits, at most 32;
// without decimals the seconds are rounded.
std::string FormatDuration(double seconds, int decimals);

// "999.0B", "1.0KB". The next unit begins at 1000 and divides by 1024, which keeps the number within three
// digits.
std::string FormatByteSize(double bytes, int precision);

} // namespace fodr::StringUtils
