#include "WireExamples.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <climits>
#include <gtest/gtest.h>

namespace fodr {
namespace {

TEST(RdpdrStream, IsZeroFilledAndNullsThePointerItIsFreedBy)
{
    RdpdrStream *stream = RdpdrStream::Create(100);
    EXPECT_EQ(Bytes(stream->Base(), stream->Base() + 100), Bytes(100));
    RdpdrStream::Free(&stream);
    EXPECT_EQ(stream, nullptr);
    RdpdrStream::Free(&stream);
    RdpdrStream::Free(nullptr);
    EXPECT_EQ(RdpdrStream::Create(size_t{INT_MAX} + 1), nullptr);
}

TEST(RdpdrStream, KeepsItsCursorInside)
{
    uint8_t packet[] = {1, 2, 3};
    RdpdrStream stream(packet, sizeof(packet));
    EXPECT_TRUE(stream.SetPosition(2));
    EXPECT_FALSE(stream.SetPosition(3));
    EXPECT_FALSE(stream.SetPosition(SIZE_MAX));
    EXPECT_FALSE(stream.Write("ab", 2));
    Bytes out(3, 9);
    EXPECT_TRUE(stream.Read(out.data(), 3));
    EXPECT_EQ(out, (Bytes{3, 0, 0})); // zeros past the end
    EXPECT_EQ(stream.Remaining(), 0u);
    EXPECT_FALSE(stream.Read(nullptr, 1));
    EXPECT_TRUE(stream.SetPosition(1));
    EXPECT_TRUE(stream.Write("a", 1));
    EXPECT_EQ(packet[1], 'a');
    EXPECT_EQ(stream.Position(), 2u);

    RdpdrStreamPtr empty(RdpdrStream::Create(0));
    EXPECT_EQ(empty->Base(), nullptr);
    EXPECT_FALSE(empty->SetPosition(0));
    EXPECT_TRUE(empty->Read(out.data(), 1));
    EXPECT_EQ(out[0], 0);
}

} // namespace
} // namespace fodr
