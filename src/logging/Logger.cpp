#include "logging/Logger.h"

#include "logging/LogSinks.h"
#include "logging/LoggerManager.h"
#include "logging/LoggerSettings.h"
#include "platform/SystemError.h"
#include "platform/Threads.h"
#include "runtime/OVTimer.h"
#include "runtime/StringUtils.h"
#include "runtime/SystemFacts.h"

#include <cstdlib>
#include <utility>

namespace fodr {

namespace {

constexpr size_t kLineSize = 1024; // what doesn't fit is cut without notice
constexpr int kDumpBytesPerLine = 20;

size_t PrintText(char *buffer, size_t size, const char *format, va_list arguments) FODR_PRINTF(3, 0);
size_t PrintText(char *buffer, size_t size, const char *format, va_list arguments)
{
    va_list ours; // the text is printed again when there was no memory for it
    va_copy(ours, arguments);
    const int length = StringUtils::FormatBufferV(buffer, size, format, ours);
    va_end(ours);
    return length > 0 ? static_cast<size_t>(length) : 0; // nothing of a text that can't be printed
}

} // namespace

Logger::Logger(const std::string &loggerName, const std::string &token) : name(loggerName), logToken(token) {}

Logger::~Logger()
{
    settingsReaders.clear(); // a change that is under way still finds the rest of this
}

// ---- Configuration ----

RCPtr<LogWriter> Logger::CreateWriter(int32_t type)
{
    RCPtr<LogWriter> writer = NewLogWriter(type);
    return AddWriter(writer) ? writer : nullptr;
}

bool Logger::AddWriter(const RCPtr<LogWriter> &writer)
{
    OVMutexLock lock(LoggerMutex());
    if (!writer || started || writers.contains(writer->Type()))
        return false;
    writer->SetLogger(this);
    writers[writer->Type()] = writer;
    return true;
}

RCPtr<LogWriter> Logger::GetWriter(int32_t type)
{
    OVMutexLock lock(LoggerMutex());
    const auto found = writers.find(type);
    return found == writers.end() ? nullptr : found->second;
}

bool Logger::SetLevel(int32_t newLevel)
{
    OVMutexLock lock(LoggerMutex());
    if (started)
        return false;
    level = newLevel;
    return true;
}

bool Logger::AddRegistryReader(const std::string &path, platform::RegistryRoot rootKey)
{
    const bool machine = rootKey == platform::RegistryRoot::LocalMachine;
    if (path.empty() || (!machine && rootKey != platform::RegistryRoot::CurrentUser))
        return false;
    AddReader(new RegSettingsReader(this, (machine ? "HKLM\\" : "HKCU\\") + path));
    return true;
}

void Logger::AddReader(const RCPtr<SettingsReader> &reader)
{
    OVMutexLock lock(LoggerMutex());
    settingsReaders.push_back(reader);
}

void Logger::ApplySettings(const RCPtr<SettingsReader> &reader)
{
    if (!reader)
        return;
    OVMutexLock lock(LoggerMutex());
    LoggerSettings(*this, reader).Apply();
}

// ---- Life ----

bool Logger::Start()
{
    OVMutexLock lock(LoggerMutex());
    if (started)
        return true;
    for (const RCPtr<SettingsReader> &reader : settingsReaders)
        ApplySettings(reader);
    size_t opened = 0;
    if (enabled) {
        for (const auto &[type, writer] : writers)
            opened += writer->Init() ? 1 : 0;
    }
    if (opened == 0)
        return false;
    started = true;
    createWriters = false;
    LoggerManager::Instance().LevelChanged(*this);
    LogStartupInfo();
    return true;
}

void Logger::Stop()
{
    std::map<int32_t, RCPtr<LogWriter>> closed;
    std::list<RCPtr<SettingsReader>> readers;
    {
        OVMutexLock lock(LoggerMutex());
        closed.swap(writers);
        readers.swap(settingsReaders);
    }
    readers.clear();
    for (const auto &[type, writer] : closed)
        writer->Close();
}

// ---- Lines ----

// Makes the line once, behind the prefix of the first open writer, and gives it to every open writer.
// `print`(buffer, size) stores the text and returns its length.
template <typename Print>
void Logger::Write(const char *functionName, int32_t messageLevel, const Print &print)
{
    if (!started || messageLevel > level)
        return;
    RCPtr<LogMessage> message;
    LogWriter *previous = nullptr; // has yet to be given the message; the last one gets our reference
    for (const auto &[type, writer] : writers) {
        if (!writer->IsOpen())
            continue;
        if (previous)
            previous->Enqueue(message);
        if (!message) {
            char line[kLineSize];
            const int prefix = writer->FormatPrefix(line, sizeof(line), functionName, messageLevel);
            size_t length = prefix > 0 ? static_cast<size_t>(prefix) : 0;
            length += print(line + length, sizeof(line) - length);
            message = LogMessage::Create(messageLevel, line, length);
        }
        previous = message ? writer.Get() : nullptr;
    }
    if (previous)
        previous->Enqueue(std::move(message));
}

void Logger::Log(const char *functionName, int32_t messageLevel, const char *format, va_list arguments)
{
    Write(functionName, messageLevel,
          [&](char *buffer, size_t size) { return PrintText(buffer, size, format, arguments); });
}

void Logger::LogLine(const char *functionName, int32_t messageLevel, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Log(functionName, messageLevel, format, arguments);
    va_end(arguments);
}

void Logger::LogHex(const char *functionName, int32_t messageLevel, const void *data, size_t length)
{
    Write(functionName, messageLevel, [&](char *buffer, size_t size) {
        return StringUtils::HexDump(buffer, size, data, length, kDumpBytesPerLine, 0);
    });
}

void Logger::LogError(uint32_t errorCode, const char *functionName, int32_t messageLevel, const char *format,
                      va_list arguments)
{
    Write(functionName, messageLevel, [&](char *buffer, size_t size) {
        size_t length = PrintText(buffer, size, format, arguments);
        if (length > 0 && buffer[length - 1] == '\n')
            --length;
        const int errorLength = StringUtils::FormatBuffer(buffer + length, size - length, "; (%d) %s",
                                                          static_cast<int>(errorCode),
                                                          platform::SystemErrorText(errorCode).c_str());
        return length + static_cast<size_t>(errorLength > 0 ? errorLength : 0);
    });
}

// What a log begins with: the facts that its reader needs to know first.

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
