#include "platform/Clock.h"

#include "platform/Files.h"
#include "platform/windows/WideText.h"
#include "platform/windows/Win32.h"

namespace fodr::platform {

namespace {

// The C library's functions take times from 1970 on only. Local times before that follow the rules of today.
std::tm BreakDownSince1601(int64_t seconds, bool utc)
{
    const uint64_t ticks = static_cast<uint64_t>(seconds + kFileTimeEpochSeconds) * kFileTimePerSecond;
    const FILETIME fileTime{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
    SYSTEMTIME universal{};
    SYSTEMTIME wanted{};
    FileTimeToSystemTime(&fileTime, &universal);
    wanted = universal;
    if (!utc)
        SystemTimeToTzSpecificLocalTime(nullptr, &universal, &wanted);
    std::tm brokenDown{};
    brokenDown.tm_year = wanted.wYear - 1900;
    brokenDown.tm_mon = wanted.wMonth - 1;
    brokenDown.tm_mday = wanted.wDay;
    brokenDown.tm_hour = wanted.wHour;
    brokenDown.tm_min = wanted.wMinute;
    brokenDown.tm_sec = wanted.wSecond;
    brokenDown.tm_wday = wanted.wDayOfWeek;
    return brokenDown;
}

} // namespace

std::tm BreakDownTime(int64_t seconds, bool utc)
{
    const time_t time = seconds;
    std::tm brokenDown{};
    if (utc || seconds < 0)
        brokenDown = BreakDownSince1601(seconds, utc);
    else
        localtime_s(&brokenDown, &time);
    return brokenDown;
}

LocalZone CurrentLocalZone()
{
    TIME_ZONE_INFORMATION zone{};
    const DWORD season = GetTimeZoneInformation(&zone);
    // Where there is no daylight time the log shows no zone at all.
    if (season != TIME_ZONE_ID_STANDARD && season != TIME_ZONE_ID_DAYLIGHT)
        return {"", static_cast<int32_t>(zone.Bias)};
    const bool summer = season == TIME_ZONE_ID_DAYLIGHT;
    return {Narrow(summer ? zone.DaylightName : zone.StandardName),
            static_cast<int32_t>(zone.Bias + (summer ? zone.DaylightBias : zone.StandardBias))};
}

} // namespace fodr::platform
