#include "cli/Console.h"

#include <gtest/gtest.h>
#include <vector>

namespace fodr::cli {
namespace {

using std::chrono::seconds;
using Lines = std::vector<std::string>;

TEST(WarningCounter, ShowsATextOnceAndThenHowOftenItCame)
{
    Lines lines;
    WarningCounter warnings([&](const std::string &line) { lines.push_back(line); });
    WarningCounter::Clock::time_point now{};
    for (int i = 0; i < 20000; ++i)
        warnings.Warn("full", now);
    warnings.Warn("busy", now);
    EXPECT_EQ(lines, (Lines{"full", "busy"}));
    warnings.Warn("full", now + WarningCounter::kInterval);
    EXPECT_EQ(lines.back(), "full ... 20000 more times");
    warnings.Warn("full", now + WarningCounter::kInterval);
    warnings.ShowCounts();
    warnings.ShowCounts(); // nothing new
    EXPECT_EQ(lines, (Lines{"full", "busy", "full ... 20000 more times", "full ... 1 more time"}));
}

TEST(WarningCounter, TextsBeyondTheLimitAreCountedTogether)
{
    Lines lines;
    WarningCounter warnings([&](const std::string &line) { lines.push_back(line); });
    for (size_t i = 0; i < WarningCounter::kMaxTexts + 1000; ++i)
        warnings.Warn(std::to_string(i), WarningCounter::Clock::time_point() + seconds(1));
    EXPECT_EQ(lines.size(), WarningCounter::kMaxTexts);
    warnings.ShowCounts();
    EXPECT_EQ(lines.back(), "other warnings ... 1000 more times");
}

} // namespace
} // namespace fodr::cli
