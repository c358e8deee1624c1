// Owns the loggers of the process and the one thread that log work runs on.
#pragma once

#include "logging/LogWriter.h"
#include "logging/Logger.h"
#include "runtime/OVPollThread.h"
#include "runtime/RCObject.h"

#include <cstdint>
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

// The plug-in's logger: brought up when the host initialises the plug-in, taken down when it exits.
// Starts and stops on the thread that initialises the plug-in.
class FodrLogger {
public:
    FodrLogger() = default;
    ~FodrLogger();
    FodrLogger(const FodrLogger &) = delete;
    FodrLogger &operator=(const FodrLogger &) = delete;

    // `logToken` names the log files. A failure is written to the debug channel, and there is no log then.
    void Start(const char *logToken);
    void Stop();

    // The level that messages are held against now; 0 without a logger.
    int32_t Level() const;

private:
    RCPtr<Logger> logger;
    const std::string name = "FodrLogger";
};

} // namespace fodr
