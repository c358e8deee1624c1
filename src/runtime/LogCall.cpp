#include "runtime/LogCall.h"

#include "lib/unicode/AsciiCase.h"
#include "platform/DebugOutput.h"
#include "platform/Process.h"
#include "platform/SystemError.h"
#include "platform/Threads.h"
#include "runtime/HexDump.h"
#include "runtime/StringUtils.h"
#include "runtime/TimeFormat.h"

#include <cstdlib>
#include <iterator>

namespace fodr {

std::atomic<int32_t> gLogLevel{LOG_LEVEL_ALWAYS};

namespace {

constexpr const char *kLevelNames[] = {"ALWAYS", "ERROR", "WARN",    "INFO",
                                       "DEBUG",  "TRACE", "VERBOSE", "NEVER"};
constexpr char kLevelLetters[] = "AEWIDTVN";
constexpr size_t kLineSize = 1024; // a longer line is cut without notice
constexpr size_t kPrefixRoom = 96; // what a dump leaves for the prefix of its line

constinit std::atomic<LogHandler> currentHandler{nullptr};
constinit std::atomic<const LogReceiver *> currentReceiver{nullptr};

// Set while this thread is in the log path. What the path itself has to say, be it the mutex that can't be
// had, would come back to it.
thread_local bool insideLog = false;

bool IsLevel(int32_t level)
{
    return level >= 0 && level < static_cast<int32_t>(std::size(kLevelNames));
}

int32_t ParseLevel(const char *text)
{
    if (text[0] >= '0' && text[0] <= '7' && text[1] == 0)
        return text[0] - '0';
    for (size_t i = 0; i < std::size(kLevelNames); ++i) {
        if (AsciiCompareNoCase(text, kLevelNames[i]) == 0)
            return static_cast<int32_t>(i);
    }
    return LOG_LEVEL_INFO;
}

void WriteLineToStandardError(const char *functionName, int32_t level, const char *format, va_list arguments)
{
    char line[kLineSize + 1];
    char time[64];
    StringUtils::FormatTimeStamp(time, sizeof(time), false);
    int prefix = StringUtils::FormatBuffer(line, kLineSize, "%s%s <%04X> [%04X] %c %s: ", "", time,
                                           platform::CurrentThreadId(), platform::CurrentProcessId(),
                                           LogLevelLetter(level), functionName);
    size_t length = prefix > 0 ? static_cast<size_t>(prefix) : 0;
    const int text = StringUtils::FormatBufferV(line + length, kLineSize - length, format, arguments);
    length += text > 0 ? static_cast<size_t>(text) : 0;
    if (length == 0 || line[length - 1] != '\n')
        line[length++] = '\n';
    platform::WriteStandardError(line, length);
}

// Before a logger exists, or without one at all.
LogHandler InterimHandler()
{
    static const bool toStandardError = std::getenv("FODR_LOG_STDERR") != nullptr;
    return toStandardError ? WriteLineToStandardError : nullptr;
}

// Runs when the library is loaded.
[[maybe_unused]] const bool interimRouteIsOpen = [] {
    const char *level = std::getenv("FODR_LOG_STDERR");
    if (level && currentHandler.load() == nullptr) {
        gLogLevel = ParseLevel(level);
        currentHandler = InterimHandler();
    }
    return level != nullptr;
}();

} // namespace

const char *LogLevelName(int32_t level)
{
    return IsLevel(level) ? kLevelNames[level] : "UNKNOWN";
}

char LogLevelLetter(int32_t level)
{
    return IsLevel(level) ? kLevelLetters[level] : '?';
}

void SetLogReceiver(const LogReceiver *receiver)
{
    currentReceiver.store(receiver, std::memory_order_release);
}

void SetLogHandler(LogHandler handler)
{
    currentHandler = handler ? handler : InterimHandler();
}

void LogWrite(const char *functionName, int32_t level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogWriteV(functionName, level, format, arguments);
    va_end(arguments);
}

void LogWriteV(const char *functionName, int32_t level, const char *format, va_list arguments)
{
    if (insideLog)
        return;
    insideLog = true;
    if (const LogHandler handler = currentHandler.load(std::memory_order_acquire))
        handler(functionName, level, format, arguments);
    else if (const LogReceiver *receiver = currentReceiver.load(std::memory_order_acquire))
        receiver->text(functionName, level, format, arguments);
    insideLog = false;
}

void LogWriteHex(const char *functionName, int32_t level, const void *data, size_t length)
{
    if (currentHandler.load(std::memory_order_acquire)) {
        char text[kLineSize - kPrefixRoom];
        StringUtils::HexDump(text, sizeof(text), data, length, 20, 0);
        LogWrite(functionName, level, "%s", text);
        return;
    }
    const LogReceiver *receiver = currentReceiver.load(std::memory_order_acquire);
    if (!receiver || insideLog)
        return;
    insideLog = true;
    receiver->hex(functionName, level, data, length);
    insideLog = false;
}

namespace {

void LogWriteErrorV(uint32_t errorCode, const char *functionName, int32_t level, const char *format,
                    va_list arguments)
{
    if (currentHandler.load(std::memory_order_acquire)) {
        char text[kLineSize];
        const int length = StringUtils::FormatBufferV(text, sizeof(text), format, arguments);
        if (length > 0 && text[length - 1] == '\n')
            text[length - 1] = 0;
        LogWrite(functionName, level, "%s; (%d) %s", text, static_cast<int>(errorCode),
                 platform::SystemErrorText(errorCode).c_str());
        return;
    }
    const LogReceiver *receiver = currentReceiver.load(std::memory_order_acquire);
    if (!receiver || insideLog)
        return;
    insideLog = true;
    receiver->error(errorCode, functionName, level, format, arguments);
    insideLog = false;
}

} // namespace

void LogWriteError(uint32_t errorCode, const char *functionName, int32_t level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogWriteErrorV(errorCode, functionName, level, format, arguments);
    va_end(arguments);
}

void LogWriteLastError(const char *functionName, int32_t level, const char *format, ...)
{
    const uint32_t errorCode = platform::LastSystemError(); // before anything else can change it
    va_list arguments;
    va_start(arguments, format);
    LogWriteErrorV(errorCode, functionName, level, format, arguments);
    va_end(arguments);
}

} // namespace fodr
