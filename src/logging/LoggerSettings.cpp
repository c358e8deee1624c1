#include "logging/LoggerSettings.h"

#include "lib/unicode/CaseFolding.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "runtime/OVRegKey.h"
#include "runtime/StringUtils.h"

#include <cstdarg>
#include <cstdlib>
#include <optional>

namespace fodr {

namespace {

struct FileNumber {
    const char *valueName;
    const char *setting; // the writer's name for it
};
constexpr FileNumber kFileNumbers[] = {
    {"logMaxDaysKept", "maxDaysKept"},
    {"logMaxFileSizeMB", "maxFileSizeMB"},
    {"logMaxRollingFiles", "maxRollingFiles"},
    {"logDiskThresholdLowMB", "diskThresholdLowMB"},
    {"logDiskThresholdHighMB", "diskThresholdHighMB"},
};

const char *FlagText(bool flag)
{
    return flag ? "TRUE" : "FALSE";
}

// NEVER is no level that one can set.
std::optional<int32_t> ParseLevel(const std::string &text)
{
    for (int32_t level = LOG_LEVEL_ALWAYS; level < LOG_LEVEL_NEVER; ++level) {
        if (AsciiCompareNoCase(text.c_str(), LogLevelName(level)) == 0)
            return level;
    }
    return std::nullopt;
}

bool TraceEnabledByPolicy()
{
    std::string text = ReadRegistryString("HKLM\\Software\\Policies\\Orvane, Inc.\\Orvane ODM\\TraceEnabled");
    if (text.empty())
        text = ReadRegistryString("HKLM\\Software\\Orvane, Inc.\\Orvane ODM\\TraceEnabled");
    return AsciiCompareNoCase(text.c_str(), "true") == 0;
}

} // namespace

LoggerSettings::LoggerSettings(Logger &target, const RCPtr<SettingsReader> &source)
    : logger(target), reader(source), readerName(source->GetName())
{}

void LoggerSettings::Apply()
{
    ApplyLevel();
    ApplyLocalTime();
    ApplyBuffering();
    ApplyFile();
    ApplySocket();
    ApplySwitch(LOG_WRITER_DEBUG, "logToDebugView", "DEBUG");
    ApplySwitch(LOG_WRITER_STDOUT, "logToStdout", "STDOUT");
    ApplySwitch(LOG_WRITER_STDERR, "logToStderr", "STDERR");
    if (!logger.started)
        ApplyBuffering(); // of the writers that were made just now
}

void LoggerSettings::Say(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    logger.Log(readerName.c_str(), LOG_LEVEL_ALWAYS, format, arguments);
    va_end(arguments);
}

// ---- In general ----

void LoggerSettings::ApplyLevel()
{
    logger.levelSource = reader->GetSource("logLevel");
    const int32_t wanted = LevelWanted();
    if (wanted == logger.level)
        return;
    logger.level = wanted;
    LoggerManager::Instance().LevelChanged(logger);
    Say("%s changed to %s", "logLevel", logger.GetLevelName());
}

int32_t LoggerSettings::LevelWanted()
{
    std::string text;
    const bool present = reader->GetString("logLevel", false, &text, true);
    if (present) {
        if (const std::optional<int32_t> named = ParseLevel(text))
            return *named;
    } else if (logger.traceEnabledCheck && reader->GetReaderKind() == 0 && TraceEnabledByPolicy()) {
        return LOG_LEVEL_DEBUG;
    }
    return logger.started ? LOG_LEVEL_INFO : logger.GetLevel();
}

bool LoggerSettings::FlagCounts(const char *valueName, bool &flag)
{
    flag = true;
    return reader->GetBool(valueName, &flag, true) || logger.started;
}

void LoggerSettings::ApplyLocalTime()
{
    bool flag = true;
    if (!FlagCounts("useLocalTime", flag) || flag == logger.useLocalTime)
        return;
    logger.useLocalTime = flag;
    Say("%s changed to %s", "useLocalTime", FlagText(flag));
}

// Unlike the other flag it holds by default from the start on.
void LoggerSettings::ApplyBuffering()
{
    bool flag = logger.started || logger.bufferingAtStart.value_or(true);
    if (reader->GetBool("enableBuffering", &flag, true) && !logger.started)
        logger.bufferingAtStart = flag;
    for (const auto &[type, writer] : logger.writers) {
        if (writer->IsBuffering() == flag)
            continue;
        writer->SetBuffering(flag);
        Say("%s changed to %s", "enableBuffering", FlagText(flag));
    }
}

// ---- Writer by writer ----

RCPtr<LogWriter> LoggerSettings::ApplySwitch(int32_t writerType, const char *valueName, const char *sinkName)
{
    RCPtr<LogWriter> writer = logger.GetWriter(writerType);
    if (!writer && !logger.createWriters)
        return nullptr;
    bool flag = writer && writer->IsEnabled(); // what a text that is no flag leaves
    if (!reader->GetBool(valueName, &flag, true))
        return writer;
    if (flag && !writer)
        writer = logger.CreateWriter(writerType);
    if (!writer || writer->IsEnabled() == flag)
        return writer;
    // The line stands between, so that it reaches the sink either way.
    if (flag)
        writer->SetEnabled(true);
    if (logger.started)
        Say("%s - %s changed to %s", sinkName, valueName, FlagText(flag));
    if (!flag)
        writer->SetEnabled(false);
    return writer;
}

void LoggerSettings::ApplyFile()
{
    const RCPtr<LogWriter> writer = ApplySwitch(LOG_WRITER_FILE, "logEnabled", "FILE");
    if (!writer)
        return;
    std::string folder;
    if (!logger.started && reader->GetString("logDirectory", false, &folder, true))
        writer->SetValue("folderPath", folder);
    for (const auto &[valueName, setting] : kFileNumbers)
        ApplyFileNumber(*writer, valueName, setting);
}

// A number above the writer's cap differs from the one kept, so every change sets and logs it again.
void LoggerSettings::ApplyFileNumber(LogWriter &writer, const char *valueName, const char *setting)
{
    uint32_t number = 0;
    std::string current;
    if (!reader->GetDword(valueName, &number, true) || !writer.GetValue(setting, current))
        return;
    if (static_cast<uint32_t>(std::strtoll(current.c_str(), nullptr, 10)) == number)
        return;
    writer.SetValue(setting, StringUtils::Format("%u", number));
    if (logger.started)
        Say("FILE - %s changed to %u", valueName, number);
}

void LoggerSettings::ApplySocket()
{
    const RCPtr<LogWriter> writer = ApplySwitch(LOG_WRITER_SOCKET, "logToSyslog", "SOCKET");
    if (!writer || logger.started)
        return;
    std::string address;
    if (reader->GetString("logRemoteAddress", false, &address, true))
        writer->SetValue("remoteAddress", address);
    uint32_t port = 0;
    if (reader->GetDword("logRemotePort", &port, true))
        writer->SetValue("remotePort", StringUtils::Format("%u", port));
}

RegSettingsReader::RegSettingsReader(Logger *owner, const std::string &path)
    : logger(owner), keyWatcher(new LogRegKeyWatcher(path, Reg64Bit, false, this))
{
    keyWatcher->Start(LoggerManager::Instance().GetPollThread());
}

RegSettingsReader::~RegSettingsReader()
{
    keyWatcher->Stop();
}

int32_t RegSettingsReader::GetReaderKind()
{
    return 0;
}

std::string RegSettingsReader::GetName()
{
    return "RegistryReader";
}

bool RegSettingsReader::GetString(const std::string &key, bool skip, std::string *value, bool flag)
{
    if (skip || !value)
        return false;
    const RCPtr<OVRegValue> stored = keyWatcher->GetValue(key, flag);
    std::string text;
    if (!stored->IsLoaded() || !stored->ToString(text, {}))
        return false;
    *value = text;
    return true;
}

bool RegSettingsReader::GetDword(const std::string &key, uint32_t *value, bool flag)
{
    const RCPtr<OVRegValue> stored = keyWatcher->GetValue(key, flag);
    if (!value || !stored->IsLoaded())
        return false;
    *value = stored->ToDword(*value);
    return true;
}

bool RegSettingsReader::GetBool(const std::string &key, bool *value, bool flag)
{
    const RCPtr<OVRegValue> stored = keyWatcher->GetValue(key, flag);
    if (!value || !stored->IsLoaded())
        return false;
    *value = stored->ToBool(*value);
    return true;
}

std::string RegSettingsReader::GetSource(const std::string &key)
{
    return OVRegKey(keyWatcher->GetPath(), Reg64Bit).GetDisplayPath() + "\\" + key;
}

LogRegKeyWatcher::LogRegKeyWatcher(const std::string &keyPath, RegView keyView, bool subtreeToo,
                                   RegSettingsReader *ownReader)
    : OVRegKeyWatcher(keyPath, keyView, subtreeToo), reader(ownReader)
{}

bool LogRegKeyWatcher::OnKeyChanged()
{
    OVMutexLock lock(LoggerMutex());
    const RCPtr<SettingsReader> held(reader);
    reader->GetLogger()->ApplySettings(held);
    return true;
}

} // namespace fodr
