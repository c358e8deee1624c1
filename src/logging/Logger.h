// Filters messages by level, makes their text once and hands it to its writers.
#pragma once

#include "logging/LogWriter.h"
#include "platform/Registry.h"
#include "runtime/LogCall.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>

namespace fodr {

// Where the settings of a logger are read. Each read is false, with the output left alone, for a value that
// is absent and for a null output. `flag` asks for the value as it is now rather than as it was last seen.
// One thread at a time.
class SettingsReader : public RCObject {
public:
    virtual int32_t GetReaderKind() = 0; // 0: the settings store
    virtual std::string GetName() = 0;   // for log lines
    // With `skip` nothing is read.
    virtual bool GetString(const std::string &key, bool skip, std::string *value, bool flag) = 0;
    virtual bool GetDword(const std::string &key, uint32_t *value, bool flag) = 0;
    virtual bool GetBool(const std::string &key, bool *value, bool flag) = 0;
    // Where the key stands, for people.
    virtual std::string GetSource(const std::string &key) = 0;
};

// Configured, started, stopped, in this order and once. Any thread.
class Logger : public RCObject {
public:
    Logger(const std::string &loggerName, const std::string &token);
    ~Logger() override;

    // Null once the logger has started, for a type that it has already and for an unknown type.
    RCPtr<LogWriter> CreateWriter(int32_t type);
    // The same with a writer that is there already; false where CreateWriter would give null.
    bool AddWriter(const RCPtr<LogWriter> &writer);
    RCPtr<LogWriter> GetWriter(int32_t type);

    const char *GetLevelName() const { return LogLevelName(level); }
    int32_t GetLevel() const { return level.load(std::memory_order_relaxed); }
    // False, with nothing changed, once the logger has started.
    bool SetLevel(int32_t newLevel);
    bool UsesLocalTime() const { return useLocalTime.load(std::memory_order_relaxed); }
    bool IsStarted() const { return started; }
    const std::string &Name() const { return name; }
    const std::string &LogToken() const { return logToken; } // stands in the names of log files

    // Settings from a key of the store, and from now on whenever they change. False, with nothing added, for
    // an empty path and for another root than LocalMachine and CurrentUser.
    bool AddRegistryReader(const std::string &path, platform::RegistryRoot rootKey);
    void AddReader(const RCPtr<SettingsReader> &reader);

    // Reads the settings and opens the writers. False when none came up.
    bool Start();
    // Writes what is queued and closes the writers.
    void Stop();
    // Takes over what the reader has now; a started logger says what changed. Null is allowed.
    void ApplySettings(const RCPtr<SettingsReader> &reader);
    void LogStartupInfo();

    // One line each; dropped unless the logger has started and the level passes.
    void Log(const char *functionName, int32_t messageLevel, const char *format, va_list arguments)
        REQUIRES(LoggerMutex()) FODR_PRINTF(4, 0);
    void LogHex(const char *functionName, int32_t messageLevel, const void *data, size_t length)
        REQUIRES(LoggerMutex());
    void LogError(uint32_t errorCode, const char *functionName, int32_t messageLevel, const char *format,
                  va_list arguments) REQUIRES(LoggerMutex()) FODR_PRINTF(5, 0);

private:
    friend class LoggerSettings;

    template <typename Print>
    void Write(const char *functionName, int32_t messageLevel, const Print &print) REQUIRES(LoggerMutex());
    void LogLine(const char *functionName, int32_t messageLevel, const char *format, ...)
        REQUIRES(LoggerMutex()) FODR_PRINTF(4, 5);

    std::map<int32_t, RCPtr<LogWriter>> writers GUARDED_BY(LoggerMutex());
    std::list<RCPtr<SettingsReader>> settingsReaders GUARDED_BY(LoggerMutex());
    const std::string name;
    const std::string logToken;
    std::atomic<int32_t> level{LOG_LEVEL_INFO}; // changes under LoggerMutex
    std::string levelSource GUARDED_BY(LoggerMutex());
    std::atomic<bool> useLocalTime{true}; // likewise
    bool enabled = true;
    std::atomic<bool> started{false}; // likewise
    bool createWriters = true;        // only while true may settings make a missing writer
    bool traceEnabledCheck = false;   // never set: the branch it opens is idle
    // What a settings reader said of it before the start.
    std::optional<bool> bufferingAtStart GUARDED_BY(LoggerMutex());
};

} // namespace fodr
