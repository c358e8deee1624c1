// What the tests of the writers ask of them, whatever the sink.
#pragma once

#include "logging/LogWriter.h"
#include "runtime/LogCall.h"

#include <string>

namespace fodr::test {

// What stands for a line that there was no memory for.
inline constexpr const char *kNoMemory = "Failed to allocate memory for log message\n";

inline RCPtr<LogMessage> Message(const std::string &text, int32_t level = LOG_LEVEL_INFO)
{
    return LogMessage::Create(level, text.data(), text.size());
}

inline bool Enqueue(LogWriter &writer, const std::string &text, int32_t level = LOG_LEVEL_INFO)
{
    OVMutexLock held(LoggerMutex());
    return writer.Enqueue(Message(text, level));
}

inline std::string PrefixOf(LogWriter &writer, const char *functionName, int32_t level = LOG_LEVEL_INFO)
{
    OVMutexLock held(LoggerMutex());
    char buffer[1024];
    const int length = writer.FormatPrefix(buffer, sizeof(buffer), functionName, level);
    return std::string(buffer, static_cast<size_t>(length));
}

// A setting of the writer, or "none".
inline std::string ValueOf(const RCPtr<LogWriter> &writer, const std::string &name)
{
    std::string value;
    return writer && writer->GetValue(name, value) ? value : "none";
}

} // namespace fodr::test
