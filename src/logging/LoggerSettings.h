// Takes over the settings of a logger and its writers from a reader, at start and whenever they change.
#pragma once

#include "logging/Logger.h"
#include "logging/SettingsReader.h"

#include <string>

namespace fodr {

// Made for one pass, under LoggerMutex throughout.
class LoggerSettings {
public:
    LoggerSettings(Logger &target, const RCPtr<SettingsReader> &source);

    void Apply() REQUIRES(LoggerMutex());

private:
    void ApplyLevel() REQUIRES(LoggerMutex());
    void ApplyLocalTime() REQUIRES(LoggerMutex());
    void ApplyBuffering() REQUIRES(LoggerMutex());
    void ApplyFile() REQUIRES(LoggerMutex());
    void ApplyFileNumber(LogWriter &writer, const char *valueName, const char *setting)
        REQUIRES(LoggerMutex());
    void ApplySocket() REQUIRES(LoggerMutex());
    // The writer, made if it is wanted and may be made, and switched on or off. Null when there is none.
    RCPtr<LogWriter> ApplySwitch(int32_t writerType, const char *valueName, const char *sinkName)
        REQUIRES(LoggerMutex());

    int32_t LevelWanted() REQUIRES(LoggerMutex());
    // True when a flag counts: it is there, or the logger has started and its absence means the default.
    bool FlagCounts(const char *valueName, bool &flag);
    void Say(const char *format, ...) REQUIRES(LoggerMutex()) FODR_PRINTF(2, 3);

    Logger &logger;
    const RCPtr<SettingsReader> reader;
    const std::string readerName; // stands as the function in the lines
};

} // namespace fodr
