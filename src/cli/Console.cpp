#include "cli/Console.h"

#include "lib/unicode/ForeignText.h"
#include "platform/Files.h"

#include <cstdio>

namespace fodr::cli {

namespace {

Mutex consoleLock;
bool remarkShown GUARDED_BY(consoleLock) = false;

void ClearRemark() REQUIRES(consoleLock)
{
    if (remarkShown)
        std::fputs("\r\033[K", stderr);
    remarkShown = false;
}

} // namespace

void Complain(const std::string &sentence)
{
    const MutexLock held(consoleLock);
    ClearRemark();
    std::fprintf(stderr, "fodr: %s\n", Plain(sentence).c_str());
    std::fflush(stderr);
}

void Say(const std::string &line)
{
    const MutexLock held(consoleLock);
    ClearRemark();
    std::fflush(stderr);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void ShowProgress(const std::string &remark)
{
    static const bool terminal = platform::ErrorOutputIsTerminal();
    if (!terminal)
        return;
    const MutexLock held(consoleLock);
    ClearRemark();
    if (!remark.empty()) {
        std::fprintf(stderr, "fodr: %s ...", Plain(remark).c_str());
        remarkShown = true;
    }
    std::fflush(stderr);
}

std::string Plain(const std::string &text)
{
    constexpr char kPrefix[] = "fodr: ";
    std::string plain = text.starts_with(kPrefix) ? text.substr(sizeof(kPrefix) - 1) : text;
    while (!plain.empty() && (plain.back() == '\n' || plain.back() == '\r' || plain.back() == '.'))
        plain.pop_back();
    return Escaped(plain);
}

void WarningCounter::Warn(const std::string &text, Clock::time_point now)
{
    const MutexLock held(lock);
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
    const MutexLock held(lock);
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
