// One finished line, shared by count between the writers and their queues. Never changed once it is made.
#pragma once

#include "runtime/RCObject.h"
#include "runtime/RCPtr.h"

#include <cstddef>
#include <cstdint>

namespace fodr {

class LogMessage : public RCObject {
public:
    // Copies `length` bytes and ends them with one newline, unless they have one. Null when there is no
    // memory for the record; a record without text when there is none for the text.
    static RCPtr<LogMessage> Create(int32_t level, const char *text, size_t length);
    // A record whose text couldn't be had.
    explicit LogMessage(int32_t messageLevel) : level(messageLevel) {}
    ~LogMessage() override;

    // Null-terminated, with the newline; null when its allocation failed.
    const char *Text() const { return text; }
    // What a sink writes: the text, or "Failed to allocate memory for log message\n".
    const char *TextToWrite() const;
    int32_t Level() const { return level; }

private:
    char *text = nullptr; // malloc'ed
    int32_t level;
};

} // namespace fodr
