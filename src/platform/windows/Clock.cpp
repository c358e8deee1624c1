#include "platform/Clock.h"

#include "platform/windows/WideText.h"
#include "platform/windows/Win32.h"

namespace fodr::platform {

std::tm BreakDownTime(int64_t seconds, bool utc)
{
    const time_t time = seconds;
    std::tm brokenDown{};
    // Both take times from 1970 on only.
    if (utc)
        gmtime_s(&brokenDown, &time);
    else
        localtime_s(&brokenDown, &time);
    return brokenDown;
}

LocalZone CurrentLocalZone()
{
    TIME_ZONE_INFORMATION zone{};
    const DWORD season = GetTimeZoneInformation(&zone);
    const bool summer = season == TIME_ZONE_ID_DAYLIGHT;
    return {Narrow(summer ? zone.DaylightName : zone.StandardName),
            static_cast<int32_t>(zone.Bias + (summer ? zone.DaylightBias : zone.StandardBias))};
}

} // namespace fodr::platform
