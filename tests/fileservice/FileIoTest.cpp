// What requests on open files do and answer.
#include "Wine.h"
#include "fileservice/FileCall.h"
#include "fileservice/IFileSystem.h"
#include "fileservice/Share.h"

#include <cstring>
#include <gmock/gmock.h>

namespace fodr::test {
namespace {

using namespace nt;

constexpr uint32_t kHuge = 0xFFFFFFFF;

TEST(ReadWrite, MoveBytesAtOffsetsAndTellHowMany)
{
    Share share;
    File file = share.Create(u"\\a.txt", {.disposition = FILE_CREATE});
    EXPECT_EQ(file.created.Information(), FILE_CREATED);
    EXPECT_EQ(file.Write(3, "hello").Length(), 5u);
    const std::string contents("\0\0\0hello", 8);
    EXPECT_EQ(share.Contents("a.txt"), contents);
    // 4 GiB may be asked of a file of 8 bytes.
    for (auto [offset, length] : {std::pair<uint32_t, uint32_t>{4, 100}, {5, 2}, {0, kHuge}}) {
        Completion part = file.Read(offset, length);
        EXPECT_EQ(part.Status(), STATUS_SUCCESS);
        EXPECT_EQ(part.Length(), part.Data().size());
        EXPECT_EQ(part.Data(), contents.substr(offset, length));
    }
    // And the file may be above 4 GiB.
    EXPECT_EQ(file.Write(uint64_t{5} << 30, "far").Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Read((uint64_t{5} << 30) + 1, 2).Data(), "ar");
}

TEST(Completions, HaveTheirLengthAndSize)
{
    Share share;
    File file = share.Made("a", "12345");
    File reader = share.Create(u"\\a", {.access = GENERIC_READ});
    File writer = share.Create(u"\\a", {.access = FILE_WRITE_DATA});
    File root = share.Create(u"\\");
    const DR_CONTROL_REQ zeroData{0, 16, FSCTL_SET_ZERO_DATA};
    const DR_CONTROL_REQ sparse{kHuge, kHuge, FSCTL_SET_SPARSE};
    // Wine has words of its own for these.
    const NTSTATUS unknownFacts = RunsOnWine() ? STATUS_INVALID_PARAMETER : STATUS_INVALID_INFO_CLASS;
    const NTSTATUS unknownControl = RunsOnWine() ? STATUS_NOT_SUPPORTED : STATUS_INVALID_DEVICE_REQUEST;
    auto volume = [&](uint32_t infoClass) {
        return root.Ask(IRP_MJ_QUERY_VOLUME_INFORMATION, DR_DRIVE_QUERY_INFORMATION_REQ{infoClass});
    };
    auto set = [&](uint32_t infoClass, uint32_t stated, std::string_view bytes,
                   uint32_t major = IRP_MJ_SET_INFORMATION) {
        return file.Ask(major, DR_DRIVE_SET_INFORMATION_REQ{infoClass, stated}, bytes);
    };
    const struct {
        const char *what;
        Completion answer;
        NTSTATUS status;
        uint32_t length = 0;
        size_t size = 21;
    } rows[] = {
        {"write", file.Write(0, "1"), STATUS_SUCCESS, 1},
        {"write without the right", reader.Write(0, "x"), STATUS_ACCESS_DENIED},
        {"read without the right", writer.Read(0, 4), STATUS_ACCESS_DENIED},
        {"read at the end", file.Read(5, 100), STATUS_END_OF_FILE},
        {"basic facts", file.Query(FileBasicInformation), STATUS_SUCCESS, 36, 56},
        {"standard facts", file.Query(FileStandardInformation), STATUS_SUCCESS, 22, 42},
        {"attribute tag", file.Query(FileAttributeTagInformation), STATUS_SUCCESS, 8, 28},
        {"unknown facts", file.Query(999), STATUS_INVALID_INFO_CLASS},
        {"volume's size", volume(FileFsSizeInformation), STATUS_SUCCESS, 24, 44},
        {"unknown facts of a volume", volume(99), unknownFacts},
        {"unknown control", file.Control(0x7FFFFFFC, "", kHuge), unknownControl},
        {"unknown minor", root.Ask(IRP_MJ_DIRECTORY_CONTROL, DR_READ_REQ{}, "", 3), STATUS_NOT_IMPLEMENTED},
        {"no minor", root.Ask(IRP_MJ_DIRECTORY_CONTROL, DR_READ_REQ{}), STATUS_NOT_IMPLEMENTED},
        // Of a payload that isn't wholly there nothing is done.
        {"cut write", file.Ask(IRP_MJ_WRITE, DR_WRITE_REQ{5, 0}, "lost"), STATUS_INVALID_PARAMETER},
        {"cut write", file.Ask(IRP_MJ_WRITE, DR_WRITE_REQ{kHuge, 0}, "lost"), STATUS_INVALID_PARAMETER},
        {"cut end", set(FileEndOfFileInformation, 8, Little(0, 7)), STATUS_INVALID_PARAMETER},
        {"cut disposition", set(FileDispositionInformation, kHuge, "\1"), STATUS_INVALID_PARAMETER},
        {"cut label", set(FileFsLabelInformation, 5, "1234", IRP_MJ_SET_VOLUME_INFORMATION),
         STATUS_INVALID_PARAMETER},
        {"cut zeroing", file.Ask(IRP_MJ_DEVICE_CONTROL, zeroData, std::string(15, '\0')),
         STATUS_INVALID_PARAMETER},
        {"cut control", file.Ask(IRP_MJ_DEVICE_CONTROL, sparse), STATUS_INVALID_PARAMETER},
        {"facts with zeros behind them", set(FileBasicInformation, 4, Little(0, 4)), STATUS_SUCCESS},
        {"new end", set(FileEndOfFileInformation, 8, Little(2)), STATUS_SUCCESS},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.answer.Status(), row.status) << row.what;
        EXPECT_EQ(row.answer.Length(), row.length) << row.what;
        EXPECT_EQ(row.answer.Size(), row.size) << row.what;
    }
    EXPECT_EQ(share.Contents("a"), "12");
    // The request's length, also when it fails. Wine takes every volume fact and sets none.
    Completion label =
        set(FileFsControlInformation, 13, Little(0) + Little(0, 5), IRP_MJ_SET_VOLUME_INFORMATION);
    EXPECT_TRUE(IsError(label.Status()) || RunsOnWine());
    EXPECT_EQ(label.Length(), 13u);
    EXPECT_EQ(label.Size(), 21u);
}

TEST(Dispatch, DropsUnknownMajorsInSilenceOnOpenFilesAlone)
{
    Share share;
    File file = share.Made("a");
    for (uint32_t major : {1u, 7u, 13u, 18u, kHuge}) {
        EXPECT_FALSE(share.Serve(share.Request(file.Id(), major, 0, DR_READ_REQ{}))) << major;
        EXPECT_EQ(share.channel.Untaken(), 0u);
        // The lookup comes first.
        EXPECT_EQ(share.Ask(share.Request(file.Id() + 4000, major, 0, DR_READ_REQ{})).Status(),
                  STATUS_INVALID_HANDLE);
    }
    // None of them is left in flight, which would hold up the close.
    EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
}

TEST(FileSystem, HandsOutAReadBufferThatIsZeroBehindWhatWasRead)
{
    Share share;
    File file = share.Made("a", "abc");
    for (uint32_t length : {64u, kLongestRead}) {
        IO_STATUS_BLOCK ioStatus{};
        uint8_t *block = nullptr;
        for (auto [offset, count] : {std::pair<int64_t, uint64_t>{1, 2}, {3, 0}}) {
            share.fileSystem->RedirectedReadFile(file.Id(), &ioStatus, &block, length, LARGE_INTEGER{offset});
            MallocBuffer buffer(block, length);
            ASSERT_TRUE(block); // also on the read that failed
            EXPECT_EQ(ioStatus.Information, count);
            std::string expected("bc", count);
            expected.resize(64);
            EXPECT_EQ(0, memcmp(block, expected.data(), expected.size()));
            EXPECT_EQ(block[length - 1], 0);
        }
    }
}

// What a packet asks for is not what it gets: the memory of a request has a limit, and the agent an answer.
TEST(Limits, LongReadsAreServedInPieces)
{
    Share share;
    std::string contents(kLongestRead + 5, 'x');
    contents.back() = 'e';
    File file = share.Made("a", contents);
    for (uint32_t length : {kLongestRead, kLongestRead + 1, 17u << 20, kHuge})
        EXPECT_EQ(file.Read(0, length).Data().size(), kLongestRead) << length;
    EXPECT_EQ(file.Read(kLongestRead, kHuge).Data(), "xxxxe");
    EXPECT_EQ(file.Read(kLongestRead + 5, kHuge).Status(), STATUS_END_OF_FILE);
}

TEST(QueryVolumeInformation, MovesTheLabelDownByOneByte)
{
    Share share;
    File root = share.Create(u"\\");
    alignas(8) uint8_t native[1024] = {};
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtQueryVolumeInformationFile(HandleOf(root.Id()), &ioStatus, native, sizeof(native),
                                           FileFsVolumeInformation),
              STATUS_SUCCESS);
    Completion volume =
        root.Ask(IRP_MJ_QUERY_VOLUME_INFORMATION, DR_DRIVE_QUERY_INFORMATION_REQ{FileFsVolumeInformation});
    ASSERT_EQ(volume.Length(), ioStatus.Information - 1);
    EXPECT_EQ(0, memcmp(volume.Data().data(), native, 17));

    // No more of it than the record holds.
    for (uint32_t stated : {6u, 4u, kHuge}) {
        std::string record = std::string(12, 'h') + Little(stated, 4) + "hhLABEL!";
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
    for (NTSTATUS tooShort : {STATUS_INFO_LENGTH_MISMATCH, STATUS_BUFFER_OVERFLOW}) {
        std::vector<uint32_t> sizes;
        MallocBuffer buffer;
        IO_STATUS_BLOCK ioStatus{};
        NTSTATUS status = QueryGrowing(buffer, 1024, &ioStatus, [&](uint8_t *data, uint32_t size) {
            sizes.push_back(size);
            data[size - 1] = 1; // all of it is there
            ioStatus.Information = 3000;
            return size < 3000 ? tooShort : STATUS_SUCCESS;
        });
        bool grows = tooShort == STATUS_INFO_LENGTH_MISMATCH;
        EXPECT_EQ(status, grows ? STATUS_SUCCESS : tooShort);
        EXPECT_EQ(sizes, grows ? (std::vector<uint32_t>{1024, 2048, 3072}) : std::vector<uint32_t>{1024});
        EXPECT_EQ(ioStatus.Information, grows ? 3000u : 1024u);
    }
}

TEST(SetInformation, ChangesFilesFromWireRecords)
{
    Share share;
    std::filesystem::create_directory(share.folder / "sub");
    File file = share.Made("a", "12");
    // 36 bytes: LastWriteTime 2001-01-01, everything else left as it is.
    constexpr uint64_t kTime = 126227808000000000;
    std::string basic = Little(0) + Little(0) + Little(kTime) + Little(0) + Little(0, 4);
    EXPECT_EQ(file.Set(FileBasicInformation, basic).Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Query(FileBasicInformation).At<uint64_t>(16), kTime);
    EXPECT_EQ(file.Query(FileStandardInformation).At<int64_t>(8), 2);

    // RootDirectory is ignored: the target is always in the share.
    EXPECT_EQ(file.Rename(u"\\sub\\b", 7).Status(), STATUS_SUCCESS);
    EXPECT_EQ(share.Contents("sub/b"), "12");
    EXPECT_FALSE(share.Exists("a"));
}

TEST(SetInformation, DeletesForADispositionWithoutBytes)
{
    Share share;
    for (const std::string &disposition : {std::string(), std::string("\1"), std::string(1, '\0')}) {
        File file = share.Made("a");
        EXPECT_EQ(file.Set(FileDispositionInformation, disposition).Status(), STATUS_SUCCESS);
        EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
        EXPECT_EQ(share.Exists("a"), disposition == std::string(1, '\0'));
    }
}

TEST(DirectoryControl, GivesOneEntryInWireFormOrManyInNativeForm)
{
    for (bool multiEntry : {false, true}) {
        Share share(
            [&](RedirectedDeviceSettings &settings) { settings.multiEntryDirectoryQuery = multiEntry; });
        Names all;
        for (int i = 0; i < 50; ++i)
            share.Put(all.emplace_back("file" + std::to_string(i)), "");
        for (const ListingShape &shape : ListingShapes(multiEntry))
            EXPECT_THAT(share.Create(u"\\").ListAll(shape, u"\\file*"),
                        testing::UnorderedElementsAreArray(all))
                << shape.infoClass;
    }
}

TEST(DirectoryControl, TakesThePatternFromBehindTheLastBackslash)
{
    Share share;
    share.Put("b.txt", "");
    const std::pair<const char16_t *, const char *> kRows[] = {
        {u"\\b.txt", "b.txt"}, {u"\\a\\c\\b.txt", "b.txt"}, {u"b.txt", "b.txt"}, {u"\\x\\", "."}, {u"", "."}};
    for (auto [path, found] : kRows) {
        Completion entry = share.Create(u"\\").List(kFullShape.infoClass, true, path);
        EXPECT_EQ(NamesOf(entry, kFullShape), Names{found}) << WireText(path);
    }
    Completion none = share.Create(u"\\").List(kFullShape.infoClass, true, u"\\none");
    EXPECT_EQ(none.Status(), STATUS_NO_SUCH_FILE);
    // A path stated longer than the packet is what the packet holds of it.
    DR_DRIVE_QUERY_DIRECTORY_REQ query{kFullShape.infoClass, 1, kHuge};
    Completion entry = share.Create(u"\\").Ask(IRP_MJ_DIRECTORY_CONTROL, query,
                                               WireText(u"\\b.*").substr(0, 8), IRP_MN_QUERY_DIRECTORY);
    EXPECT_EQ(NamesOf(entry, kFullShape), Names{"b.txt"});
}

TEST(LockControl, FollowsItsRules)
{
    constexpr uint32_t kShared = RDP_LOWIO_OP_SHAREDLOCK, kExclusive = RDP_LOWIO_OP_EXCLUSIVELOCK;
    constexpr uint32_t kUnlock = RDP_LOWIO_OP_UNLOCK, kUnlockMany = RDP_LOWIO_OP_UNLOCK_MULTIPLE;
    // Wine has one status for both refusals.
    const NTSTATUS notGranted = RunsOnWine() ? STATUS_FILE_LOCK_CONFLICT : STATUS_LOCK_NOT_GRANTED;
    const NTSTATUS notLocked = RunsOnWine() ? STATUS_FILE_LOCK_CONFLICT : STATUS_RANGE_NOT_LOCKED;
    Share share;
    File file = share.Made("a");
    File other = share.Create(u"\\a");
    const struct {
        const char *what;
        File &by;
        uint32_t operation;
        std::vector<LockRange> ranges;
        NTSTATUS status;
    } rows[] = {
        {"no lock, nothing tried", file, 77, {}, STATUS_SUCCESS},
        {"exclusive", file, kExclusive, {{0, 10}}, STATUS_SUCCESS},
        {"shared beside it", file, kShared, {{10, 10}}, STATUS_SUCCESS},
        {"shared with another", other, kShared, {{15, 10}}, STATUS_SUCCESS},
        {"shared, so not exclusive", other, kExclusive, {{12, 1}}, notGranted},
        {"two for a single operation", file, kUnlock, {{0, 10}, {10, 10}}, STATUS_INVALID_PARAMETER},
        {"two for a single operation", file, kExclusive, {{100, 1}, {200, 1}}, STATUS_INVALID_PARAMETER},
        {"unknown operation", file, 6, {{0, 10}}, STATUS_INVALID_PARAMETER},
        {"not locked", file, kUnlock, {{500, 1}}, notLocked},
        {"both at once", file, kUnlockMany, {{0, 10}, {10, 10}}, STATUS_SUCCESS},
        {"gone by now", file, kUnlock, {{0, 10}}, notLocked},
        {"one", file, kExclusive, {{0, 10}}, STATUS_SUCCESS},
        {"another", file, kExclusive, {{40, 10}}, STATUS_SUCCESS},
        {"the middle one not locked", file, kUnlockMany, {{0, 10}, {35, 1}, {40, 10}}, notLocked},
        {"unlocked before the failure", other, kExclusive, {{0, 10}}, STATUS_SUCCESS},
        {"still locked behind it", other, kExclusive, {{40, 10}}, notGranted},
    };
    for (const auto &row : rows) {
        Completion answer = row.by.Lock(row.operation, row.ranges);
        EXPECT_EQ(answer.Status(), row.status) << row.what;
        EXPECT_EQ(answer.Size(), 21u);
    }
    // A list that isn't wholly there: none of its locks is tried.
    for (uint32_t count : {1u, 2u, 0x10000000u, kHuge}) {
        DR_DRIVE_LOCK_REQ lock{count == 1 ? kExclusive : kUnlockMany, 1, count};
        EXPECT_EQ(file.Ask(IRP_MJ_LOCK_CONTROL, lock, std::string(15, '\1')).Status(),
                  STATUS_INVALID_PARAMETER);
    }
}

} // namespace
} // namespace fodr::test
