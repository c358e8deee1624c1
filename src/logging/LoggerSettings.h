// The settings of a logger and its writers: where they are read, and how they are taken over at start and at
// every change.
#pragma once

#include "logging/Logger.h"
#include "runtime/OVRegKey.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <string>

namespace fodr {

class LogRegKeyWatcher;

// Settings of a logger from one key of the settings store.
class RegSettingsReader : public SettingsReader {
public:
    // Watches the key ("HKLM\...") on the loggers' poll thread from now on. The logger owns the reader.
    RegSettingsReader(Logger *owner, const std::string &path);
    ~RegSettingsReader() override;

    int32_t GetReaderKind() override;
    std::string GetName() override;
    bool GetString(const std::string &key, bool skip, std::string *value, bool flag) override;
    bool GetDword(const std::string &key, uint32_t *value, bool flag) override;
    bool GetBool(const std::string &key, bool *value, bool flag) override;
    std::string GetSource(const std::string &key) override;

    Logger *GetLogger() const { return logger; }

private:
    Logger *logger;
    RCPtr<LogRegKeyWatcher> keyWatcher;
};

// Tells a reader's logger that the settings changed.
class LogRegKeyWatcher : public OVRegKeyWatcher {
public:
    // The reader stops the watcher before it goes.
    LogRegKeyWatcher(const std::string &keyPath, RegView keyView, bool subtreeToo,
                     RegSettingsReader *ownReader);

    bool OnKeyChanged() override;

private:
    RegSettingsReader *reader;
};

// Takes over the settings of a logger and its writers from a reader, at start and whenever they change.
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
