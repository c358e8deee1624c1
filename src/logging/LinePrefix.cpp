// What stands before the text of a line. Every enabled call makes one, so it is put together by hand.
#include "logging/LogWriter.h"
#include "logging/Logger.h"
#include "platform/Threads.h"
#include "runtime/OVTimer.h"
#include "runtime/StringUtils.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace fodr {

namespace {

constexpr std::string_view kSeparator = "---------------------------------------\n";

// Appends to a buffer as long as there is room, with one byte kept for the terminator.
class LineBuilder {
public:
    LineBuilder(char *buffer, size_t size) : begin(buffer), at(buffer), end(buffer + size - 1) {}

    void Add(std::string_view text)
    {
        const size_t length = std::min(text.size(), static_cast<size_t>(end - at));
        memcpy(at, text.data(), length);
        at += length;
    }
    // As "%04X".
    void AddHex(uint32_t number)
    {
        char digits[8];
        size_t count = 0;
        for (; number != 0 || count < 4; number >>= 4)
            digits[sizeof(digits) - ++count] = "0123456789ABCDEF"[number & 0xF];
        Add({digits + sizeof(digits) - count, count});
    }
    int Finish()
    {
        *at = 0;
        return static_cast<int>(at - begin);
    }

private:
    char *begin;
    char *at;
    char *end;
};

} // namespace

int LogWriter::FormatPrefix(char *buffer, size_t size, const char *functionName, int32_t level)
{
    if (!functionName || functionName[0] == 0) // goes on below the text of the last line
        return StringUtils::FormatBuffer(buffer, size, "%*s", prefixLength, "");
    const uint32_t threadId = platform::CurrentThreadId();
    LineBuilder line(buffer, size);
    if (lastThreadId != 0 && lastThreadId != threadId)
        line.Add(kSeparator);
    lastThreadId = threadId;
    line.Add(TimeStampOfNow());
    line.Add(" <");
    line.AddHex(threadId);
    line.Add("> [");
    line.AddHex(processId);
    const char letter[] = {']', ' ', LogLevelLetter(level), ' '};
    line.Add({letter, sizeof(letter)});
    line.Add(functionName);
    line.Add(": ");
    prefixLength = line.Finish();
    return prefixLength;
}

// Breaking a time down costs more than the rest of a line, so it is done once a second.
std::string_view LogWriter::TimeStampOfNow()
{
    const bool utc = logger && !logger->UsesLocalTime();
    const int64_t now = StringUtils::WallClockMS();
    const int64_t milliseconds = (now % 1000 + 1000) % 1000;
    if (now - milliseconds != timeStamp.secondMS || utc != timeStamp.utc) {
        timeStamp.secondMS = now - milliseconds;
        timeStamp.utc = utc;
        timeStamp.length = static_cast<size_t>(
            StringUtils::FormatTimeStamp(timeStamp.text, sizeof(timeStamp.text), utc, now));
    }
    char *digits = timeStamp.text + timeStamp.length - (utc ? 4 : 3);
    digits[0] = static_cast<char>('0' + milliseconds / 100);
    digits[1] = static_cast<char>('0' + milliseconds / 10 % 10);
    digits[2] = static_cast<char>('0' + milliseconds % 10);
    return {timeStamp.text, timeStamp.length};
}

} // namespace fodr
