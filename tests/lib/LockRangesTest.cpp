#include "lib/misc/LockRanges.h"

#include <array>
#include <gtest/gtest.h>
#include <random>

namespace fodr {
namespace {

// Against one value for each byte.
TEST(LockRanges, AreWhatWasSetLastOfEachByte)
{
    constexpr uint64_t kBytes = 40;
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        LockRanges ranges;
        std::array<std::optional<bool>, kBytes> bytes;
        for (int step = 0; step < 20; ++step) {
            const uint64_t begin = random() % kBytes, end = begin + random() % (kBytes - begin + 1);
            const int kind = static_cast<int>(random() % 3);
            const std::optional<bool> exclusive = kind == 2 ? std::nullopt : std::optional<bool>(kind == 1);
            ranges.Set(begin, end, exclusive);
            std::fill(bytes.begin() + static_cast<long>(begin), bytes.begin() + static_cast<long>(end),
                      exclusive);

            std::vector<LockedRange> expected, inside;
            for (uint64_t n = 0; n < kBytes; ++n) {
                if (!bytes[n])
                    continue;
                if (!expected.empty() && expected.back().end == n && expected.back().exclusive == *bytes[n])
                    ++expected.back().end;
                else
                    expected.push_back({n, n + 1, *bytes[n]});
            }
            ASSERT_EQ(ranges.All(), expected);
            for (const LockedRange &range : expected) {
                if (range.begin < 20 && range.end > 10)
                    inside.push_back({std::max<uint64_t>(range.begin, 10), std::min<uint64_t>(range.end, 20),
                                      range.exclusive});
            }
            ASSERT_EQ(ranges.Within(10, 20), inside);
        }
    }
}

TEST(LockRanges, StayWhatTheyWereLockedAs)
{
    LockRanges ranges;
    for (const uint64_t begin : {0u, 10u, 20u})
        ranges.Set(begin, begin + 10, true, LockRanges::Neighbours::Stay);
    ranges.Set(5, 12, std::nullopt, LockRanges::Neighbours::Stay);
    EXPECT_EQ(ranges.All(), (std::vector<LockedRange>{{0, 5, true}, {12, 20, true}, {20, 30, true}}));
}

} // namespace
} // namespace fodr
