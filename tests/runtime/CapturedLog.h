// Catches the log lines of a test as "<level letter> <function>: <text>".
#pragma once

#include "runtime/LogCall.h"

#include <cstdio>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

namespace fodr {

class CapturedLog {
public:
    explicit CapturedLog(int32_t level) : previousLevel(gLogLevel)
    {
        std::lock_guard guard(lock);
        lines.clear();
        gLogLevel = level;
        SetLogHandler(Take);
    }
    ~CapturedLog()
    {
        SetLogHandler(nullptr);
        gLogLevel = previousLevel;
    }

    static std::vector<std::string> Lines()
    {
        std::lock_guard guard(lock);
        return lines;
    }

    // The lines with hexadecimal numbers blotted out.
    static std::vector<std::string> LinesWithoutIds()
    {
        std::vector<std::string> blotted = Lines();
        for (std::string &line : blotted)
            line = std::regex_replace(line, std::regex("0x[0-9A-Fa-f]+"), "ID");
        return blotted;
    }

private:
    static void Take(const char *functionName, int32_t level, const char *format, va_list arguments)
    {
        char text[1024];
        vsnprintf(text, sizeof(text), format, arguments);
        std::lock_guard guard(lock);
        lines.push_back(std::string(1, LogLevelLetter(level)) + " " + functionName + ": " + text);
    }

    static inline std::mutex lock;
    static inline std::vector<std::string> lines;
    int32_t previousLevel;
};

} // namespace fodr
