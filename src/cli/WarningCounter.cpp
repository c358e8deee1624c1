#include "cli/WarningCounter.h"

namespace fodr::cli {

void WarningCounter::Warn(const std::string &text, Clock::time_point now)
{
    const std::lock_guard<std::mutex> held(lock);
    const bool known = counts.contains(text);
    if (!known && counts.size() < kMaxTexts) {
        counts[text].shown = now;
        show(text);
        return;
    }
    Count &count = counts[known ? text : ""];
    ++count.more;
    if (now - count.shown < kInterval)
        return;
    ShowCount(known ? text : "", &count);
    count.shown = now;
}

void WarningCounter::ShowCounts()
{
    const std::lock_guard<std::mutex> held(lock);
    for (auto &[text, count] : counts)
        ShowCount(text, &count);
}

void WarningCounter::ShowCount(const std::string &text, Count *count)
{
    if (count->more == 0)
        return;
    const std::string times = std::to_string(count->more) + " more " + (count->more == 1 ? "time" : "times");
    show((text.empty() ? "other warnings" : text) + " ... " + times);
    count->more = 0;
}

} // namespace fodr::cli
