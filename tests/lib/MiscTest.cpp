#include "lib/misc/ByteBuffer.h"
#include "lib/misc/LockRanges.h"
#include "lib/misc/Panic.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <utility>

namespace fodr {
namespace {

TEST(ByteBuffer, KeepsItsBytesWhileItGrows)
{
    ByteBuffer buffer;
    std::string expected;
    for (int i = 0; i < 500; ++i) {
        const std::string piece(static_cast<size_t>(i % 7), static_cast<char>('a' + i % 26));
        ASSERT_TRUE(buffer.Append(piece.data(), piece.size()));
        uint8_t *reserved = buffer.Reserve(3);
        ASSERT_NE(nullptr, reserved);
        memcpy(reserved, "xyz", 3);
        buffer.Commit(2); // one byte less than reserved: it doesn't count
        expected += piece + "xy";
    }
    EXPECT_EQ(nullptr, buffer.Reserve(SIZE_MAX - 1));
    EXPECT_EQ(expected.size(), buffer.Size());
    MallocBuffer block = buffer.Detach();
    EXPECT_EQ(expected, std::string(reinterpret_cast<const char *>(block.Data()), block.Size()));
    EXPECT_EQ(0u, buffer.Size() + buffer.Capacity());
    EXPECT_TRUE(buffer.Append("again", 5));
    EXPECT_FALSE(ByteBuffer().Detach());
}

TEST(MallocBuffer, OwnsItsBlockAlone)
{
    MallocBuffer first = MallocBuffer::AllocateZeroed(4);
    uint8_t *block = first.Data();
    MallocBuffer second(std::move(first));
    EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(block, second.Data());
    second = MallocBuffer::Allocate(2); // frees the old block, or the leak check speaks up
    EXPECT_EQ(2u, second.Size());
    uint8_t *released = second.Release();
    EXPECT_FALSE(second);
    EXPECT_EQ(0u, second.Size());
    free(released);
    EXPECT_TRUE(MallocBuffer::Allocate(0));
}

TEST(PanicDeathTest, NamesTheSourceAndEndsWithOne)
{
    EXPECT_EXIT(Panic("%d apples\n", 3), testing::ExitedWithCode(1), "^Panic: 3 apples\n$");
    EXPECT_EXIT(PanicNotImplemented("a/b", 7), testing::ExitedWithCode(1),
                "^Panic: NOT_IMPLEMENTED a/b:7\n$");
    EXPECT_EXIT(PanicNotReached("a/b", 8), testing::ExitedWithCode(1), "^Panic: NOT_REACHED a/b:8\n$");
    EXPECT_EXIT(PanicVerify("a/b", 9), testing::ExitedWithCode(1), "^Panic: VERIFY a/b:9\n$");
    EXPECT_EXIT(FODR_VERIFY(1 + 1 == 3), testing::ExitedWithCode(1), "VERIFY .*MiscTest.cpp:.+\n$");
}

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
