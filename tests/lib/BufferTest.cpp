#include "lib/misc/ByteBuffer.h"
#include "lib/misc/Panic.h"

#include <cstring>
#include <gtest/gtest.h>
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
    EXPECT_EXIT(FODR_VERIFY(1 + 1 == 3), testing::ExitedWithCode(1), "VERIFY .*BufferTest.cpp:.+\n$");
}

} // namespace
} // namespace fodr
