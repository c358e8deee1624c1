// The one log call. A disabled call costs one load and one compare: no argument is evaluated.
//
//     LOG_WARN("Failed to open reg key.\n");
//
// The line carries the calling method as "Class::Method()", derived at compile time; formats are checked by
// the compiler. Callable from any thread and at any time; never fails towards the caller.
#pragma once

#include "lib/misc/Panic.h"

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string_view>
#include <type_traits>

namespace fodr {

enum LogLevel : int32_t {
    LOG_LEVEL_ALWAYS = 0,
    LOG_LEVEL_ERROR = 1,
    LOG_LEVEL_WARN = 2,
    LOG_LEVEL_INFO = 3,
    LOG_LEVEL_DEBUG = 4,
    LOG_LEVEL_TRACE = 5,
    LOG_LEVEL_VERBOSE = 6,
    LOG_LEVEL_NEVER = 7,
};

// A message passes when its level is at most this. Read without synchronisation at every call site: a stale
// value lets one message more or less through.
extern std::atomic<int32_t> gLogLevel;

inline bool IsLogEnabled(int32_t level)
{
    return gLogLevel.load(std::memory_order_relaxed) >= level;
}

void LogWrite(const char *functionName, int32_t level, const char *format, ...) FODR_PRINTF(3, 4);
void LogWriteV(const char *functionName, int32_t level, const char *format, va_list arguments)
    FODR_PRINTF(3, 0);
// The text is a hex dump of the bytes.
void LogWriteHex(const char *functionName, int32_t level, const void *data, size_t length);
// Append "; (<code>) <what the system says of it>": of an error code of platform/SystemError.h, or of the
// last error of the calling thread.
void LogWriteError(uint32_t errorCode, const char *functionName, int32_t level, const char *format, ...)
    FODR_PRINTF(4, 5);
void LogWriteLastError(const char *functionName, int32_t level, const char *format, ...) FODR_PRINTF(3, 4);

// "ALWAYS" to "NEVER", and "UNKNOWN" for any other number.
const char *LogLevelName(int32_t level);
// One of "AEWIDTVN"; '?' for any other number.
char LogLevelLetter(int32_t level);

// What takes the calls: the logger, which lives in a higher room. The functions are called from any thread,
// several at once; a log call made from inside of them is dropped.
struct LogReceiver {
    void (*text)(const char *functionName, int32_t level, const char *format, va_list arguments);
    void (*hex)(const char *functionName, int32_t level, const void *data, size_t length);
    void (*error)(uint32_t errorCode, const char *functionName, int32_t level, const char *format,
                  va_list arguments);
};
// A receiver is never destroyed. Null, the state at start, drops all calls.
void SetLogReceiver(const LogReceiver *receiver);

// Takes all calls in place of the receiver, as long as it is set, dumps and errors as ready text. For tests
// and tools; under the rules of a receiver. Null gives the calls back.
using LogHandler = void (*)(const char *functionName, int32_t level, const char *format, va_list arguments);
void SetLogHandler(LogHandler handler);

namespace detail {

// "bool fodr::RPCManager::Init(bool, const Record &)" -> "RPCManager::Init()".
struct MethodName {
    char text[96] = {};

    consteval explicit MethodName(std::string_view pretty)
    {
        // The parameter list opens at the first '(' that isn't that of "(anonymous namespace)".
        size_t end = pretty.find('(');
        while (end != std::string_view::npos && pretty.substr(end).starts_with("(anonymous namespace)"))
            end = pretty.find('(', end + 1);
        if (end == std::string_view::npos)
            end = pretty.size();
        size_t begin = end;
        int depth = 0;
        while (begin > 0) {
            char c = pretty[begin - 1];
            if (c == '>')
                ++depth;
            else if (c == '<')
                --depth;
            else if (depth == 0 && (c == '*' || c == '&' ||
                                    (c == ' ' && !pretty.substr(0, begin).ends_with("(anonymous "))))
                break;
            --begin;
        }
        std::string_view name = pretty.substr(begin, end - begin);
        for (std::string_view prefix : {"fodr::", "{anonymous}::", "(anonymous namespace)::"}) {
            if (name.starts_with(prefix))
                name.remove_prefix(prefix.size());
        }
        size_t length = name.size() < sizeof(text) - 3 ? name.size() : sizeof(text) - 3;
        for (size_t i = 0; i < length; ++i)
            text[i] = name[i];
        text[length] = '(';
        text[length + 1] = ')';
    }
};

} // namespace detail
} // namespace fodr

#define LOG_AT(level, ...)                                                                                   \
    do {                                                                                                     \
        if (::fodr::IsLogEnabled(level)) {                                                                   \
            static constexpr ::fodr::detail::MethodName fodrMethodName(__PRETTY_FUNCTION__);                 \
            ::fodr::LogWrite(fodrMethodName.text, (level), __VA_ARGS__);                                     \
        }                                                                                                    \
    } while (false)

// The same with the text of an error behind the message, see LogWriteError.
#define LOG_CODE_AT(level, errorCode, ...)                                                                   \
    do {                                                                                                     \
        if (::fodr::IsLogEnabled(level)) {                                                                   \
            static constexpr ::fodr::detail::MethodName fodrMethodName(__PRETTY_FUNCTION__);                 \
            ::fodr::LogWriteError((errorCode), fodrMethodName.text, (level), __VA_ARGS__);                   \
        }                                                                                                    \
    } while (false)

#define LOG_ALWAYS(...) LOG_AT(::fodr::LOG_LEVEL_ALWAYS, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT(::fodr::LOG_LEVEL_ERROR, __VA_ARGS__)
#define LOG_WARN(...) LOG_AT(::fodr::LOG_LEVEL_WARN, __VA_ARGS__)
#define LOG_INFO(...) LOG_AT(::fodr::LOG_LEVEL_INFO, __VA_ARGS__)
#define LOG_DEBUG(...) LOG_AT(::fodr::LOG_LEVEL_DEBUG, __VA_ARGS__)
#define LOG_TRACE(...) LOG_AT(::fodr::LOG_LEVEL_TRACE, __VA_ARGS__)
#define LOG_VERBOSE(...) LOG_AT(::fodr::LOG_LEVEL_VERBOSE, __VA_ARGS__)

namespace fodr {

// Logs "Enter" where it is made and "Exit" where its scope ends, at TRACE. While the level is off it costs
// one read and a compare.
class FunctionTrace {
public:
    // The name outlives the object.
    explicit FunctionTrace(const char *name) : functionName(IsLogEnabled(LOG_LEVEL_TRACE) ? name : nullptr)
    {
        if (functionName)
            LogWrite(functionName, LOG_LEVEL_TRACE, "Enter");
    }
    ~FunctionTrace()
    {
        if (functionName)
            LogWrite(functionName, LOG_LEVEL_TRACE, "Exit");
    }
    FunctionTrace(const FunctionTrace &) = delete;
    FunctionTrace &operator=(const FunctionTrace &) = delete;

private:
    const char *const functionName; // null while the level is off
};

// Runs call(), for code of ours that others call: the host, or a thread that only runs tasks. An exception
// ends here with a line in the log, which carries the name. True when nothing was thrown.
template <typename Call> bool CallWithoutThrowing(const char *functionName, const Call &call) noexcept
{
    constexpr const char *kFormat = "Stopped by an exception: %s\n";
    try {
        call();
        return true;
    } catch (const std::exception &exception) {
        if (IsLogEnabled(LOG_LEVEL_ERROR))
            LogWrite(functionName, LOG_LEVEL_ERROR, kFormat, exception.what());
    } catch (...) {
        if (IsLogEnabled(LOG_LEVEL_ERROR))
            LogWrite(functionName, LOG_LEVEL_ERROR, kFormat, "unknown");
    }
    return false;
}

// The same function with nothing thrown; its result is false, 0 or null then.
template <auto Function> struct NoThrow;
template <typename Result, typename... Arguments, Result (*Function)(Arguments...)> struct NoThrow<Function> {
    static Result Call(Arguments... arguments) noexcept
    {
        constexpr const char *kName = "NoThrow::Call()";
        if constexpr (std::is_void_v<Result>) {
            CallWithoutThrowing(kName, [&] { Function(arguments...); });
        } else {
            Result result{};
            CallWithoutThrowing(kName, [&] { result = Function(arguments...); });
            return result;
        }
    }
};

} // namespace fodr

#define FODR_TRACE_FUNCTION()                                                                                \
    static constexpr ::fodr::detail::MethodName fodrTracedName(__PRETTY_FUNCTION__);                         \
    const ::fodr::FunctionTrace fodrFunctionTrace(fodrTracedName.text)
