// Owns the loggers of the process and the one thread that log work runs on.
#pragma once

#include "logging/Logger.h"
#include "logging/LoggerMutex.h"
#include "runtime/OVPollThread.h"
#include "runtime/RCPtr.h"

#include <map>
#include <string>

namespace fodr {

// Made on first use and never destroyed. From then on it takes the calls of runtime/LogCall.h. Any thread.
class LoggerManager {
public:
    static LoggerManager &Instance();
    LoggerManager(const LoggerManager &) = delete;
    LoggerManager &operator=(const LoggerManager &) = delete;

    // Null for an empty name and for one that is there already.
    RCPtr<Logger> CreateLogger(const std::string &name, const std::string &logToken, bool makeDefault);
    RCPtr<Logger> FindLogger(const std::string &name);
    RCPtr<Logger> GetDefaultLogger();
    // The log calls go to this logger; null drops them.
    void SetDefaultLogger(const RCPtr<Logger> &logger);
    // The logger's level is another now, or counts from now on.
    void LevelChanged(const Logger &logger) REQUIRES(LoggerMutex());
    // Running, unless Shutdown is under way. Its lock is LoggerMutex.
    RCPtr<OVPollThread> GetPollThread();
    // Stops the thread, then every logger in the order of their names.
    void Shutdown();

private:
    LoggerManager();

    static const LogReceiver kReceiver;

    RCPtr<Logger> defaultLogger GUARDED_BY(LoggerMutex());
    std::map<std::string, RCPtr<Logger>> loggers GUARDED_BY(LoggerMutex());
    bool shuttingDown GUARDED_BY(LoggerMutex()) = false;
    RCPtr<OVPollThread> pollThread;
};

// A log call to one logger. The reference is the callee's from here on.
void LogWriteTo(RCPtr<Logger> logger, const char *functionName, int32_t level, const char *format, ...)
    FODR_PRINTF(4, 5);

} // namespace fodr
