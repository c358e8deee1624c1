#include "ntposix/NtWords.h"

#include <sys/mount.h>

namespace fodr::nt {

namespace {

using Transfer = NtFixture;

constexpr int64_t kToEnd = -1;
constexpr int64_t kAtPosition = -2;

TEST_F(Transfer, ReadsEndWhereTheFileEnds)
{
    MakeFile("file", "0123456789");
    const NtFile file = Open("file");
    const struct {
        int64_t offset;
        uint32_t length;
        NTSTATUS status;
        const char *text;
    } cases[] = {
        {0, 10, STATUS_SUCCESS, "0123456789"},  {4, 3, STATUS_SUCCESS, "456"},
        {8, 100, STATUS_SUCCESS, "89"},         {10, 1, STATUS_END_OF_FILE, ""},
        {1'000'000, 1, STATUS_END_OF_FILE, ""}, {10, 0, STATUS_SUCCESS, ""},
        {-3, 1, STATUS_INVALID_PARAMETER, ""},  {INT64_MIN, 1, STATUS_INVALID_PARAMETER, ""},
    };
    for (const auto &test : cases) {
        const auto [status, text] = ReadAt(file, test.offset, test.length);
        EXPECT_EQ(status, test.status) << test.offset;
        EXPECT_EQ(text, test.text) << test.offset;
    }
    EXPECT_EQ(ReadAt(Folder(""), 0, 1).status, STATUS_INVALID_DEVICE_REQUEST);
}

TEST_F(Transfer, WritesGoWhereTheyAreTold)
{
    constexpr int64_t kFar = 5'000'000'000;
    const NtFile file = Open("file", {.access = kReadWrite, .disposition = FILE_CREATE});
    const struct {
        int64_t offset;
        const char *text;
        Outcome outcome;
        const char *contentAfter;
    } cases[] = {
        {0, "abc", {STATUS_SUCCESS, 3}, "abc"},
        {1, "BC", {STATUS_SUCCESS, 2}, "aBC"},
        {kToEnd, "d", {STATUS_SUCCESS, 1}, "aBCd"},
        {5, "f", {STATUS_SUCCESS, 1}, std::string_view("aBCd\0f", 6).data()},
        {0, "", {STATUS_SUCCESS, 0}, "aBCd"},
        {-3, "x", {STATUS_INVALID_PARAMETER, 0}, "aBCd"},
        {INT64_MAX, "x", {STATUS_INVALID_PARAMETER, 0}, "aBCd"},
        {kFar, "far", {STATUS_SUCCESS, 3}, "aBCd"},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(WriteAt(file, test.offset, test.text), test.outcome) << test.offset;
        EXPECT_STREQ(ReadAt(file, 0, 100).text.c_str(), test.contentAfter) << test.offset;
    }
    EXPECT_EQ(ReadAt(file, kFar, 10).text, "far");
    EXPECT_EQ(StandardOf(file).EndOfFile, kFar + 3);
    EXPECT_LT(StandardOf(file).AllocationSize, 1'000'000);
    EXPECT_EQ(WriteAt(Open("", {.access = FILE_WRITE_DATA}), 0, "x").status, STATUS_INVALID_DEVICE_REQUEST);
}

TEST_F(Transfer, AnAppendOnlyHandleWritesToTheEnd)
{
    MakeFile("file", "one");
    NtFile appender = Open("file", {.access = FILE_APPEND_DATA});
    NtFile writer = Open("file", {.access = kReadWrite, .options = FILE_WRITE_THROUGH});
    EXPECT_EQ(WriteAt(appender, 0, ",two"), (Outcome{STATUS_SUCCESS, 4}));
    EXPECT_EQ(WriteAt(writer, kToEnd, ",three"), (Outcome{STATUS_SUCCESS, 6}));
    EXPECT_EQ(WriteAt(appender, 1, ",four"), (Outcome{STATUS_SUCCESS, 5}));
    EXPECT_EQ(ReadAt(writer, 0, 100).text, "one,two,three,four");
}

TEST_F(Transfer, ThePositionFollowsTransfers)
{
    MakeFile("file", "0123456789");
    NtFile file = Open("file", {.access = kReadWrite});
    const auto position = [&file] {
        return Told<FILE_POSITION_INFORMATION>(file, FilePositionInformation).CurrentByteOffset;
    };
    EXPECT_EQ(ReadAt(file, 2, 3).text, "234");
    EXPECT_EQ(position(), 5);
    EXPECT_EQ(ReadAt(file, kAtPosition, 2).text, "56");
    EXPECT_EQ(WriteAt(file, kToEnd, "ab"), (Outcome{STATUS_SUCCESS, 2}));
    EXPECT_EQ(position(), 12);
    EXPECT_EQ(Set(file, FilePositionInformation, FILE_POSITION_INFORMATION{1}), STATUS_SUCCESS);
    EXPECT_EQ(ReadAt(file, kAtPosition, 2).text, "12");
    EXPECT_EQ(Set(file, FilePositionInformation, FILE_POSITION_INFORMATION{-1}), STATUS_INVALID_PARAMETER);
}

// Linux only: a real small file system, which takes the right to mount.
TEST_F(Transfer, AFullDiskIsTold)
{
    MakeFolder("small");
    if (mount("fodr-test", Path("small").c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "can't mount a tmpfs";
    {
        const OpenOptions making{.access = kReadWrite, .disposition = FILE_CREATE};
        const NtFile file = Open("small\\file", making);
        const auto setAllocation = [&](int64_t size) {
            return Set(file, FileAllocationInformation, FILE_ALLOCATION_INFORMATION{size});
        };
        const std::string block(40 * 1024, 'x');
        EXPECT_EQ(WriteAt(file, 0, block), (Outcome{STATUS_SUCCESS, block.size()}));
        const Outcome second = WriteAt(file, static_cast<int64_t>(block.size()), block);
        EXPECT_EQ(second.status, STATUS_DISK_FULL);
        // What is told as written is there, and no more.
        EXPECT_EQ(StandardOf(file).EndOfFile, static_cast<int64_t>(block.size() + second.information));
        EXPECT_EQ(WriteAt(file, kToEnd, block), (Outcome{STATUS_DISK_FULL, 0}));
        EXPECT_EQ(setAllocation(1 << 20), STATUS_DISK_FULL);
        OpenOptions large = making;
        large.allocation = 1 << 20;
        EXPECT_EQ(Open("small\\big", large).status, STATUS_DISK_FULL);
        EXPECT_FALSE(Exists("small/big"));
        // What can't be had isn't taken in part either.
        EXPECT_EQ(Set(file, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{0}), STATUS_SUCCESS);
        EXPECT_EQ(setAllocation(INT64_MAX), STATUS_DISK_FULL);
        EXPECT_EQ(StandardOf(file).AllocationSize, 0);
        EXPECT_EQ(Rename(Doomed("small\\file"), NtPath("moved")), STATUS_NOT_SAME_DEVICE);
    }
    ASSERT_EQ(umount(Path("small").c_str()), 0);
}

} // namespace

} // namespace fodr::nt
