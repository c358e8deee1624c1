#include "Wine.h"
#include "fileservice/NtCalls.h"
#include "fileservice/Share.h"

#include <cstring>

namespace fodr::test {
namespace {

using namespace nt;

TEST(ReadWrite, MoveBytesAtOffsetsAndTellHowMany)
{
    Share share;
    File file = share.Create(u"\\a.txt", {.disposition = FILE_CREATE});
    EXPECT_EQ(file.created.Information(), FILE_CREATED);
    Completion written = file.Write(3, "hello");
    EXPECT_EQ(written.Status(), STATUS_SUCCESS);
    EXPECT_EQ(written.Length(), 5u);
    EXPECT_EQ(written.Size(), 21u);
    EXPECT_EQ(share.Contents("a.txt"), std::string("\0\0\0hello", 8));

    Completion part = file.Read(4, 100); // as much as there is
    EXPECT_EQ(part.Status(), STATUS_SUCCESS);
    EXPECT_EQ(part.Length(), 4u);
    EXPECT_EQ(part.Data(), "ello");
    EXPECT_EQ(part.Size(), 24u);
    Completion end = file.Read(8, 100);
    EXPECT_EQ(end.Status(), STATUS_END_OF_FILE);
    EXPECT_EQ(end.Length(), 0u);
    EXPECT_EQ(end.Size(), 21u);
    // 4 GiB are asked of a file of 8 bytes.
    EXPECT_EQ(file.Read(0, 0xFFFFFFFF).Length(), 8u);
    // A share's file may be above 4 GiB.
    EXPECT_EQ(file.Write(uint64_t{5} << 30, "far").Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Read((uint64_t{5} << 30) + 1, 2).Data(), "ar");
}

TEST(ReadWrite, GiveNoCountWhenTheyFail)
{
    Share share;
    share.Put("a", "data");
    File reader = share.Create(u"\\a", {.access = GENERIC_READ});
    Completion refused = reader.Write(0, "x");
    EXPECT_EQ(refused.Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(refused.Length(), 0u);
    File writer = share.Create(u"\\a", {.access = FILE_WRITE_DATA});
    Completion unread = writer.Read(0, 4);
    EXPECT_EQ(unread.Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(unread.Size(), 21u);
    EXPECT_EQ(share.Contents("a"), "data");
}

TEST(FileSystem, HandsOutAReadBufferThatIsZeroBehindWhatWasRead)
{
    Share share;
    share.Put("a", "abc");
    File file = share.Create(u"\\a");
    for (uint32_t length : {64u, 40u << 20}) {
        IO_STATUS_BLOCK ioStatus{};
        uint8_t *block = nullptr;
        for (auto [offset, count] : {std::pair<int64_t, uint64_t>{1, 2}, {3, 0}}) {
            share.fileSystem->RedirectedReadFile(file.Id(), &ioStatus, &block, length, LARGE_INTEGER{offset});
            MallocBuffer buffer(block, length);
            ASSERT_TRUE(block); // also on the read that failed
            EXPECT_EQ(ioStatus.Information, count);
            EXPECT_EQ(0, memcmp(block, "bc", count));
            for (size_t i = count; i < 64; ++i)
                EXPECT_EQ(block[i], 0) << i;
            EXPECT_EQ(block[length - 1], 0);
        }
    }
}

TEST(QueryInformation, GivesTheWireSizes)
{
    Share share;
    share.Put("a", "12345");
    File file = share.Create(u"\\a");
    Completion basic = file.Query(FileBasicInformation);
    EXPECT_EQ(basic.Status(), STATUS_SUCCESS);
    EXPECT_EQ(basic.Length(), 36u);
    EXPECT_EQ(basic.Size(), 20u + 36);
    Completion standard = file.Query(FileStandardInformation);
    EXPECT_EQ(standard.Length(), 22u);
    EXPECT_EQ(standard.Size(), 20u + 22);
    EXPECT_EQ(standard.At<int64_t>(offsetof(FILE_STANDARD_INFORMATION, EndOfFile)), 5);
    EXPECT_EQ(file.Query(FileAttributeTagInformation).Length(), 8u);
    Completion unknown = file.Query(999);
    EXPECT_EQ(unknown.Status(), STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(unknown.Size(), 21u);
}

TEST(QueryVolumeInformation, MovesTheLabelDownByOneByte)
{
    Share share;
    File root = share.Create(u"\\");
    HANDLE handle = HandleOf(root.Id());
    alignas(8) uint8_t native[1024] = {};
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(
        NtQueryVolumeInformationFile(handle, &ioStatus, native, sizeof(native), FileFsVolumeInformation),
        STATUS_SUCCESS);
    Completion volume = root.QueryVolume(FileFsVolumeInformation);
    ASSERT_EQ(volume.Status(), STATUS_SUCCESS);
    ASSERT_EQ(volume.Length(), ioStatus.Information - 1);
    EXPECT_EQ(0, memcmp(volume.Data().data(), native, 17));
    EXPECT_EQ(root.QueryVolume(FileFsSizeInformation).Length(), 24u);
    EXPECT_EQ(root.QueryVolume(FileFsObjectIdInformation).Size(), 21u);
}

TEST(MoveVolumeLabel, MovesNoMoreThanTheRecordHolds)
{
    for (uint32_t stated : {6u, 4u, 0xFFFFFFFFu}) {
        std::string record = std::string(18, 'h') + "LABEL!";
        StoreLittle(reinterpret_cast<uint8_t *>(record.data()) + 12, stated);
        uint64_t length = record.size();
        MoveVolumeLabel(reinterpret_cast<uint8_t *>(record.data()), &length);
        EXPECT_EQ(length, 23u);
        EXPECT_EQ(record.substr(17, std::min(stated, 6u)), std::string("LABEL!").substr(0, stated));
    }
    uint64_t nothing = 0;
    MoveVolumeLabel(nullptr, &nothing);
    EXPECT_EQ(nothing, 0u);
}

TEST(QueryGrowing, GrowsOnLengthMismatchAlone)
{
    std::vector<uint32_t> sizes;
    MallocBuffer buffer;
    IO_STATUS_BLOCK ioStatus{};
    auto fits = [&](uint32_t needed) {
        return [&sizes, &ioStatus, needed](uint8_t *data, uint32_t size) {
            sizes.push_back(size);
            data[size - 1] = 1; // all of it is there
            ioStatus.Information = needed;
            return size < needed ? STATUS_INFO_LENGTH_MISMATCH : STATUS_SUCCESS;
        };
    };
    EXPECT_EQ(QueryGrowing(buffer, 1024, &ioStatus, fits(3000)), STATUS_SUCCESS);
    EXPECT_EQ(sizes, (std::vector<uint32_t>{1024, 2048, 3072}));
    EXPECT_EQ(ioStatus.Information, 3000u);
    int calls = 0;
    auto overflows = [&](uint8_t *, uint32_t) {
        ++calls;
        return STATUS_BUFFER_OVERFLOW;
    };
    EXPECT_EQ(QueryGrowing(buffer, 1024, &ioStatus, overflows), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(calls, 1);
}

std::string Little(uint64_t value, size_t size = 8)
{
    std::string bytes(8, '\0');
    StoreLittle(reinterpret_cast<uint8_t *>(bytes.data()), value);
    return bytes.substr(0, size);
}

TEST(SetInformation, ChangesFilesFromWireRecords)
{
    Share share;
    share.Put("a", "123456");
    std::filesystem::create_directory(share.folder / "sub");
    File file = share.Create(u"\\a");
    Completion cut = file.Set(FileEndOfFileInformation, Little(2));
    EXPECT_EQ(cut.Status(), STATUS_SUCCESS);
    EXPECT_EQ(cut.Size(), 21u);
    EXPECT_EQ(cut.Length(), 0u);
    EXPECT_EQ(share.Contents("a"), "12");

    // 36 bytes: LastWriteTime 2001-01-01, everything else left as it is.
    constexpr uint64_t kTime = 126227808000000000;
    std::string basic = Little(0) + Little(0) + Little(kTime) + Little(0) + Little(0, 4);
    EXPECT_EQ(file.Set(FileBasicInformation, basic).Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Query(FileBasicInformation).At<uint64_t>(16), kTime);

    // RootDirectory is ignored: the target is always in the share.
    std::string name = WireText(u"\\sub\\b");
    EXPECT_EQ(
        file.Set(FileRenameInformation, std::string("\0\x07", 2) + Little(name.size(), 4) + name).Status(),
        STATUS_SUCCESS);
    EXPECT_EQ(share.Contents("sub/b"), "12");
    EXPECT_FALSE(share.Exists("a"));
}

TEST(SetInformation, DeletesForADispositionWithoutBytes)
{
    Share share;
    for (auto [disposition, stays] :
         {std::pair<std::string, bool>{"", false}, {"\1", false}, {std::string(1, '\0'), true}}) {
        share.Put("a", "");
        File file = share.Create(u"\\a");
        EXPECT_EQ(file.Set(FileDispositionInformation, disposition).Status(), STATUS_SUCCESS);
        EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
        EXPECT_EQ(share.Exists("a"), stays);
    }
}

TEST(SetVolumeInformation, EchoesTheLengthAlsoWhenItFails)
{
    Share share;
    File root = share.Create(u"\\");
    Completion set = root.SetVolume(FileFsControlInformation, std::string(13, '\0'));
    EXPECT_TRUE(IsError(set.Status()) || RunsOnWine()); // which takes every volume fact and sets none
    EXPECT_EQ(set.Length(), 13u);
    EXPECT_EQ(set.Size(), 21u);
}

TEST(DeviceControl, CarriesItsDataBehindAZeroLength)
{
    FODR_SKIP_ON_WINE("allocated ranges can't be asked for");
    Share share;
    share.Put("a", std::string(5000, 'x'));
    File file = share.Create(u"\\a");
    Completion ranges = file.Control(FSCTL_QUERY_ALLOCATED_RANGES, Little(0) + Little(5000), 64);
    ASSERT_EQ(ranges.Status(), STATUS_SUCCESS);
    EXPECT_EQ(ranges.Length(), 0u);
    ASSERT_EQ(ranges.Size(), 20u + sizeof(FILE_ALLOCATED_RANGE_BUFFER));
    EXPECT_EQ(ranges.At<uint64_t>(0), 0u);
    EXPECT_GE(ranges.At<uint64_t>(8), 5000u);
    Completion unknown = file.Control(0x7FFFFFFC, "", 0xFFFFFFFF);
    EXPECT_EQ(unknown.Status(), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(unknown.Size(), 21u);
}

} // namespace
} // namespace fodr::test
