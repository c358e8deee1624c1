#include "runtime/LogCall.h"

#include "platform/SystemError.h"
#include "runtime/StringUtils.h"

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

// Runs `deliver` unless this thread is in the log path already. A line that can't be made is lost, for a log
// call never fails.
template <typename Deliver> void InLogPath(const Deliver &deliver) noexcept
{
    if (insideLog)
        return;
    insideLog = true;
    try {
        deliver();
    } catch (...) {
    }
    insideLog = false;
}

bool IsLevel(int32_t level)
{
    return level >= 0 && level < static_cast<int32_t>(std::size(kLevelNames));
}

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
    currentHandler.store(handler, std::memory_order_release);
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
    InLogPath([&] {
        if (const LogHandler handler = currentHandler.load(std::memory_order_acquire))
            handler(functionName, level, format, arguments);
        else if (const LogReceiver *receiver = currentReceiver.load(std::memory_order_acquire))
            receiver->text(functionName, level, format, arguments);
    });
}

void LogWriteHex(const char *functionName, int32_t level, const void *data, size_t length)
{
    if (currentHandler.load(std::memory_order_acquire)) {
        char text[kLineSize - kPrefixRoom];
        StringUtils::HexDump(text, sizeof(text), data, length, 20, 0);
        LogWrite(functionName, level, "%s", text);
        return;
    }
    if (const LogReceiver *receiver = currentReceiver.load(std::memory_order_acquire))
        InLogPath([&] { receiver->hex(functionName, level, data, length); });
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
    if (const LogReceiver *receiver = currentReceiver.load(std::memory_order_acquire))
        InLogPath([&] { receiver->error(errorCode, functionName, level, format, arguments); });
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
