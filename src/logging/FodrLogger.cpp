#include "logging/FodrLogger.h"

namespace fodr {

namespace {

const char *LevelName(int32_t level)
{
    constexpr const char *kNames[] = {"ALWAYS", "ERROR", "WARN",    "INFO",
                                      "DEBUG",  "TRACE", "VERBOSE", "NEVER"};
    return level >= 0 && level < 8 ? kNames[level] : "UNKNOWN";
}

} // namespace

void FodrLogger::Start(const char * /*logToken*/)
{
    LogWrite("FodrLogger::Start()", LOG_LEVEL_ALWAYS, "Log level is set to %s\n", LevelName(Level()));
}

void FodrLogger::Stop() {}

} // namespace fodr
