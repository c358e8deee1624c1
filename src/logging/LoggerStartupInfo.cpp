// What a log begins with: the facts that its reader needs to know first.
#include "logging/Logger.h"
#include "platform/Threads.h"
#include "runtime/StringUtils.h"
#include "runtime/SystemFacts.h"
#include "runtime/TimeFormat.h"

#include <cstdlib>

namespace fodr {

namespace {

// "CET (UTC +1)", "IST (UTC +5:30)". The bias is what is added to local time to give UTC.
std::string ZoneText(const platform::LocalZone &zone)
{
    if (zone.name.empty())
        return {};
    const char sign = zone.biasMinutes < 0 ? '+' : '-';
    const int hours = std::abs(zone.biasMinutes) / 60;
    const int minutes = std::abs(zone.biasMinutes) % 60;
    if (minutes == 0)
        return StringUtils::Format("%s (UTC %c%d)", zone.name.c_str(), sign, hours);
    return StringUtils::Format("%s (UTC %c%d:%02d)", zone.name.c_str(), sign, hours, minutes);
}

} // namespace

void Logger::LogStartupInfo()
{
    OVMutexLock lock(LoggerMutex());
    const std::string module = GetModulePath(true);
    const std::string version = GetFileVersionText(module);
    LogLine(module.empty() ? "Logger::LogStartupInfo()" : module.c_str(), LOG_LEVEL_ALWAYS, "%s%s\n",
            version.empty() ? "No version information" : ("version=" + version).c_str(),
            ", buildtype=release/x64");
    LogLine("OS Version", LOG_LEVEL_ALWAYS, "%s%s\n", GetOsVersionText().c_str(),
            StringUtils::Format(", sessionId=%d", static_cast<int>(ProcessUtils::GetSessionID())).c_str());
    // The clock that the lines don't use, so that both can be matched.
    const bool utc = useLocalTime;
    LogLine("Time Zone", LOG_LEVEL_ALWAYS, "%s, %s time is %s\n",
            ZoneText(platform::CurrentLocalZone()).c_str(), utc ? "UTC" : "Local",
            StringUtils::TimeStamp(utc).c_str());
    LogLine("Log Level", LOG_LEVEL_ALWAYS, "%s (read from %s)\n", GetLevelName(), levelSource.c_str());
}

} // namespace fodr
