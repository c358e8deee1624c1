#include "logging/LogMessage.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace fodr {

RCPtr<LogMessage> LogMessage::Create(int32_t level, const char *text, size_t length)
{
    auto *message = new (std::nothrow) LogMessage(level);
    if (!message)
        return nullptr;
    const bool hasNewline = length > 0 && text[length - 1] == '\n';
    message->text = static_cast<char *>(malloc(length + (hasNewline ? 1 : 2)));
    if (message->text) {
        memcpy(message->text, text, length);
        if (!hasNewline)
            message->text[length++] = '\n';
        message->text[length] = 0;
    }
    return message;
}

LogMessage::~LogMessage()
{
    free(text);
}

const char *LogMessage::TextToWrite() const
{
    return text ? text : "Failed to allocate memory for log message\n";
}

} // namespace fodr
