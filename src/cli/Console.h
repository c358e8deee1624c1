// What the command says to people. Any thread.
#pragma once

#include "lib/misc/Mutex.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace fodr::cli {

// One line on standard error that begins "fodr: ".
void Complain(const std::string &sentence);

// One line on standard output, at once.
void Say(const std::string &line);

// A passing remark about what is being waited for, on a terminal only; the next line of any kind, or an empty
// remark, replaces it.
void ShowProgress(const std::string &remark);

// For the middle of a sentence: without a "fodr: " in front, a full stop and line ends behind, and without
// characters that a terminal would obey.
std::string Plain(const std::string &text);

// Warnings that come again and again are counted, not shown each time.
// Shows each text once, and later how often it came since. Any thread.
class WarningCounter {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr size_t kMaxTexts = 50;              // different ones; all beyond are counted together
    static constexpr std::chrono::seconds kInterval{10}; // between two lines about one text

    explicit WarningCounter(std::function<void(const std::string &line)> showLine) : show(std::move(showLine))
    {}

    void Warn(const std::string &text, Clock::time_point now = Clock::now());
    // Shows what was counted and not shown yet.
    void ShowCounts();

private:
    struct Count {
        uint64_t more = 0; // since the last line about it
        Clock::time_point shown;
    };
    void ShowCount(const std::string &text, Count *count) REQUIRES(lock);

    const std::function<void(const std::string &line)> show;
    Mutex lock;
    std::map<std::string, Count> counts GUARDED_BY(lock); // the empty text stands for those beyond the limit
};

} // namespace fodr::cli
