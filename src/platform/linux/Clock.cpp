#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Clock.h"

namespace fodr::platform {

std::tm BreakDownTime(int64_t seconds, bool utc)
{
    const time_t time = static_cast<time_t>(seconds);
    std::tm brokenDown{};
    if (utc)
        gmtime_r(&time, &brokenDown);
    else
        localtime_r(&time, &brokenDown);
    return brokenDown;
}

LocalZone CurrentLocalZone()
{
    const std::tm now = BreakDownTime(time(nullptr), false);
    return {now.tm_zone ? now.tm_zone : "", static_cast<int32_t>(-now.tm_gmtoff / 60)};
}

} // namespace fodr::platform
