#include "WireExamples.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <algorithm>
#include <climits>
#include <gtest/gtest.h>

namespace fodr {
namespace {

TEST(RdpdrStream, IsZeroFilledAndNullsThePointerItIsFreedBy)
{
    RdpdrStream *stream = RdpdrStream::Create(100);
    ASSERT_TRUE(stream);
    EXPECT_TRUE(std::all_of(stream->Base(), stream->Base() + 100, [](uint8_t byte) { return byte == 0; }));
    RdpdrStream::Free(&stream);
    EXPECT_EQ(stream, nullptr);
    RdpdrStream::Free(&stream);
    RdpdrStream::Free(nullptr);
    EXPECT_EQ(RdpdrStream::Create(size_t{INT_MAX} + 1), nullptr);
}

TEST(RdpdrStream, ReadsZerosPastItsEnd)
{
    uint8_t packet[] = {1, 2, 3};
    RdpdrStream stream(packet, sizeof(packet));
    uint8_t out[5] = {9, 9, 9, 9, 9};
    EXPECT_TRUE(stream.Read(out, 2));
    EXPECT_EQ(stream.Remaining(), 1u);
    EXPECT_TRUE(stream.Read(out, 5));
    EXPECT_EQ(Bytes(out, out + 5), (Bytes{3, 0, 0, 0, 0}));
    EXPECT_EQ(stream.Remaining(), 0u);
    EXPECT_TRUE(stream.Read(out, 1));
    EXPECT_EQ(out[0], 0);
    EXPECT_FALSE(stream.Read(nullptr, 1));
}

TEST(RdpdrStream, KeepsItsCursorInside)
{
    RdpdrStreamPtr stream(RdpdrStream::Create(4));
    EXPECT_TRUE(stream->SetPosition(3));
    EXPECT_FALSE(stream->SetPosition(4));
    EXPECT_FALSE(stream->SetPosition(SIZE_MAX));
    EXPECT_EQ(stream->Position(), 3u);
    EXPECT_FALSE(stream->Write("ab", 2));
    EXPECT_TRUE(stream->Write("a", 1));
    EXPECT_EQ(stream->Base()[3], 'a');

    RdpdrStreamPtr empty(RdpdrStream::Create(0));
    EXPECT_EQ(empty->Base(), nullptr);
    EXPECT_FALSE(empty->SetPosition(0));
    uint32_t value = 7;
    EXPECT_TRUE(empty->Read(&value, sizeof(value)));
    EXPECT_EQ(value, 0u);
}

// The whole packet is in a block of exactly its size, so that a sanitizer sees a byte read too far.
TEST(RdpdrStream, EveryPrefixOfEveryPacketReadsAsIfPaddedWithZeros)
{
    for (const auto &[heading, whole] : WireExamples()) {
        for (size_t size = 0; size <= whole.size(); ++size) {
            Bytes prefix(whole.begin(), whole.begin() + static_cast<long>(size));
            Bytes padded = prefix;
            padded.resize(kMinRequestSize + whole.size());
            RdpdrStream cut(prefix.data(), static_cast<int32_t>(size));
            RdpdrStream full(padded.data(), static_cast<int32_t>(padded.size()));
            EXPECT_EQ(ReadRecord<RDPDR_HEADER>(cut).PacketId, ReadRecord<RDPDR_HEADER>(full).PacketId);
            auto request = ReadRecord<DR_DEVICE_IOREQUEST>(cut);
            auto expected = ReadRecord<DR_DEVICE_IOREQUEST>(full);
            EXPECT_EQ(request.CompletionId, expected.CompletionId) << heading << size;
            EXPECT_EQ(request.Parameters, expected.Parameters) << heading << size;
        }
    }
}

} // namespace
} // namespace fodr
