// Times of files: 100 ns steps since 1601-01-01 00:00 UTC (MS-DTYP 2.3.3). Any thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace fodr {

inline constexpr int64_t kFileTimePerSecond = 10'000'000;
inline constexpr int64_t kFileTimeEpochSeconds = 11'644'473'600; // from 1601 to 1970

// Of seconds since 1970; what a file time can't hold becomes the nearest that it can.
constexpr int64_t FileTimeOf(int64_t seconds, int64_t nanoseconds)
{
    constexpr int64_t kLatestSecond = INT64_MAX / kFileTimePerSecond - kFileTimeEpochSeconds - 1;
    const int64_t bounded = std::clamp(seconds, -kFileTimeEpochSeconds, kLatestSecond);
    return (bounded + kFileTimeEpochSeconds) * kFileTimePerSecond + nanoseconds / 100;
}

// The opposite, for times from 1601 on; before that the year 1601.
constexpr timespec TimespecOf(int64_t fileTime)
{
    const int64_t steps = std::max<int64_t>(fileTime, 0);
    timespec time{};
    time.tv_sec = steps / kFileTimePerSecond - kFileTimeEpochSeconds;
    time.tv_nsec = static_cast<decltype(time.tv_nsec)>(steps % kFileTimePerSecond * 100);
    return time;
}

} // namespace fodr
