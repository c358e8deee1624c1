#include "ntposix/NtWords.h"

#include <filesystem>
#include <sys/statvfs.h>
#include <vector>

namespace fodr::nt {

namespace {

class Information : public NtFixture {
protected:
    static Outcome QueryLength(HANDLE file, uint32_t infoClass, uint32_t length)
    {
        std::vector<uint8_t> buffer(length); // exactly that long: a byte too many is noticed
        IO_STATUS_BLOCK io{};
        const NTSTATUS status = NtQueryInformationFile(file, &io, buffer.data(), length, infoClass);
        return {status, io.Information};
    }
    static Outcome QueryVolumeLength(HANDLE file, uint32_t infoClass, uint32_t length)
    {
        std::vector<uint8_t> buffer(length);
        IO_STATUS_BLOCK io{};
        const NTSTATUS status = NtQueryVolumeInformationFile(file, &io, buffer.data(), length, infoClass);
        return {status, io.Information};
    }
};

TEST_F(Information, EveryClassHasItsLength)
{
    MakeFile("file", "content");
    NtFile file = Open("file", {.access = GENERIC_ALL});
    const uint64_t name = (NtPath("file").size() - 4) * 2;
    const struct {
        uint32_t infoClass;
        uint32_t length;
        Outcome outcome;
    } cases[] = {
        {FileBasicInformation, 40, {STATUS_SUCCESS, 40}},
        {FileStandardInformation, 24, {STATUS_SUCCESS, 24}},
        {FileInternalInformation, 8, {STATUS_SUCCESS, 8}},
        {FileEaInformation, 4, {STATUS_SUCCESS, 4}},
        {FileAccessInformation, 4, {STATUS_SUCCESS, 4}},
        {FileNameInformation, 8, {STATUS_BUFFER_OVERFLOW, 8}},
        {FilePositionInformation, 8, {STATUS_SUCCESS, 8}},
        {FileModeInformation, 4, {STATUS_SUCCESS, 4}},
        {FileAlignmentInformation, 4, {STATUS_SUCCESS, 4}},
        {FileAllInformation, 104, {STATUS_BUFFER_OVERFLOW, 104}},
        {FileStreamInformation, 32, {STATUS_BUFFER_OVERFLOW, 32}},
        {FileCompressionInformation, 16, {STATUS_SUCCESS, 16}},
        {FileNetworkOpenInformation, 56, {STATUS_SUCCESS, 56}},
        {FileAttributeTagInformation, 8, {STATUS_SUCCESS, 8}},
        {FileAlternateNameInformation, 8, {STATUS_OBJECT_NAME_NOT_FOUND, 0}},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(QueryLength(file, test.infoClass, test.length), test.outcome) << test.infoClass;
        EXPECT_EQ(QueryLength(file, test.infoClass, test.length - 1),
                  (Outcome{STATUS_INFO_LENGTH_MISMATCH, 0}))
            << test.infoClass;
    }
    EXPECT_EQ(QueryLength(file, FileNameInformation, 1024), (Outcome{STATUS_SUCCESS, 4 + name}));
    EXPECT_EQ(QueryLength(file, FileNameInformation, 11), (Outcome{STATUS_BUFFER_OVERFLOW, 10}));
    EXPECT_EQ(QueryLength(file, FileAllInformation, 1024), (Outcome{STATUS_SUCCESS, 100 + name}));
    EXPECT_EQ(QueryLength(file, FileStreamInformation, 38), (Outcome{STATUS_SUCCESS, 38}));
    for (uint32_t other :
         {0u, FileRenameInformation, FileDispositionInformation, FileBothDirectoryInformation, 99u})
        EXPECT_EQ(QueryLength(file, other, 1024), (Outcome{STATUS_INVALID_INFO_CLASS, 0})) << other;

    IO_STATUS_BLOCK io{};
    const uint8_t bytes[128] = {};
    for (const auto &[infoClass, length] :
         {std::pair(FileBasicInformation, 40u), std::pair(FileEndOfFileInformation, 8u),
          std::pair(FileAllocationInformation, 8u), std::pair(FilePositionInformation, 8u),
          std::pair(FileModeInformation, 4u), std::pair(FileDispositionInformation, 1u),
          std::pair(FileRenameInformation, 24u)})
        EXPECT_EQ(NtSetInformationFile(file, &io, bytes, length - 1, infoClass), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(NtSetInformationFile(file, &io, bytes, 128, FileAllInformation), STATUS_INVALID_INFO_CLASS);
}

TEST_F(Information, ARenameNameStaysInItsBuffer)
{
    MakeFile("file");
    NtFile file = Open("file", {.access = DELETE_ACCESS | SYNCHRONIZE});
    for (uint32_t length : {5u, 6u, 1000u, 0xFFFFFFFEu, 0u, 3u}) {
        FILE_RENAME_INFORMATION record{};
        record.FileNameLength = length;
        EXPECT_EQ(Set(file, FileRenameInformation, record),
                  length > 4 || length % 2 || length == 0 ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS)
            << length;
    }
}

TEST_F(Information, FactsAreThoseOfTheFile)
{
    MakeFile(".hidden", "content");
    std::filesystem::create_hard_link(root / ".hidden", root / "visible");
    MakeFolder("folder");
    NtFile file = Open(".hidden");
    struct stat stat;
    ASSERT_EQ(::stat(Path(".hidden").c_str(), &stat), 0);
    const FILE_STANDARD_INFORMATION standard = StandardOf(file);
    EXPECT_EQ(standard.EndOfFile, 7);
    EXPECT_EQ(standard.AllocationSize, stat.st_blocks * 512);
    EXPECT_EQ(standard.NumberOfLinks, 2u);
    EXPECT_EQ(standard.Directory, 0);
    EXPECT_EQ(BasicOf(file).FileAttributes, FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(BasicOf(Open("visible")).FileAttributes, FILE_ATTRIBUTE_ARCHIVE);
    EXPECT_EQ(BasicOf(file).LastWriteTime,
              (stat.st_mtim.tv_sec + 11'644'473'600) * 10'000'000 + stat.st_mtim.tv_nsec / 100);
    FILE_INTERNAL_INFORMATION internal{};
    EXPECT_EQ(Query(file, FileInternalInformation, &internal).status, STATUS_SUCCESS);
    EXPECT_EQ(internal.IndexNumber, static_cast<int64_t>(stat.st_ino));

    NtFile folder = Open("folder");
    EXPECT_EQ(StandardOf(folder).Directory, 1);
    EXPECT_EQ(StandardOf(folder).EndOfFile, 0);
    EXPECT_EQ(BasicOf(folder).FileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(QueryLength(folder, FileStreamInformation, 32), (Outcome{STATUS_SUCCESS, 0}));

    struct {
        FILE_ALL_INFORMATION all;
        char16_t rest[500];
    } record{};
    NtFile again = Open("VISIBLE");
    EXPECT_EQ(Query(again, FileAllInformation, &record).status, STATUS_SUCCESS);
    EXPECT_EQ(record.all.StandardInformation.EndOfFile, 7);
    EXPECT_EQ(record.all.AccessInformation.AccessFlags, 0x120089u); // what GENERIC_READ means
    EXPECT_EQ(record.all.ModeInformation.Mode, FILE_SYNCHRONOUS_IO_NONALERT);
    // The name as it is on disk, not as it was asked for.
    const std::u16string name(record.all.NameInformation.FileName,
                              record.all.NameInformation.FileNameLength / 2);
    EXPECT_TRUE(name.starts_with(u"\\") && name.ends_with(u"\\visible")) << Utf8(name);
}

TEST_F(Information, TimesAndReadOnlyAreSet)
{
    MakeFile("file");
    chmod(Path("file").c_str(), 0664);
    constexpr int64_t kTime = 131'000'000'000'000'001;
    for (uint32_t access : {GENERIC_ALL, FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE}) {
        NtFile file = Open("file", {.access = access});
        const FILE_BASIC_INFORMATION before = BasicOf(file);
        EXPECT_EQ(Set(file, FileBasicInformation, FILE_BASIC_INFORMATION{0, 0, kTime, 0, 0}), STATUS_SUCCESS);
        EXPECT_EQ(BasicOf(file).LastWriteTime, kTime);
        EXPECT_EQ(BasicOf(file).LastAccessTime, before.LastAccessTime);
        EXPECT_EQ(Set(file, FileBasicInformation,
                      FILE_BASIC_INFORMATION{-1, kTime + 9, -1, -1, FILE_ATTRIBUTE_READONLY}),
                  STATUS_SUCCESS);
        EXPECT_EQ(BasicOf(file).LastAccessTime, kTime + 9);
        EXPECT_EQ(BasicOf(file).FileAttributes, FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY);
        EXPECT_EQ(Open("file", {.access = GENERIC_WRITE}).status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(Set(file, FileBasicInformation, FILE_BASIC_INFORMATION{0, 0, 0, 0, FILE_ATTRIBUTE_NORMAL}),
                  STATUS_SUCCESS);
        struct stat stat;
        ASSERT_EQ(::stat(Path("file").c_str(), &stat), 0);
        EXPECT_EQ(stat.st_mode & 0777, 0664u); // no other bit was touched
        EXPECT_EQ(
            Set(file, FileBasicInformation, FILE_BASIC_INFORMATION{0, 0, 0, 0, FILE_ATTRIBUTE_DIRECTORY}),
            STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(Set(Open("file"), FileBasicInformation, FILE_BASIC_INFORMATION{}), STATUS_ACCESS_DENIED);

    // A record from the wire has no padding, whatever length is told.
    const std::vector<uint8_t> unpadded(36);
    IO_STATUS_BLOCK io{};
    NtFile file = Open("file", {.access = GENERIC_ALL});
    EXPECT_EQ(NtSetInformationFile(file, &io, unpadded.data(), 40, FileBasicInformation), STATUS_SUCCESS);
}

TEST_F(Information, SizesAreSet)
{
    MakeFile("file", "0123456789");
    NtFile file = Open("file", {.access = GENERIC_ALL});
    auto setEnd = [&](int64_t size) {
        return Set(file, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{size});
    };
    auto setAllocation = [&](int64_t size) {
        return Set(file, FileAllocationInformation, FILE_ALLOCATION_INFORMATION{size});
    };
    EXPECT_EQ(setEnd(4), STATUS_SUCCESS);
    EXPECT_EQ(setEnd(1 << 20), STATUS_SUCCESS); // a hole behind
    EXPECT_EQ(ReadAt(file, 2, 4).text, std::string("23\0\0", 4));
    EXPECT_LT(StandardOf(file).AllocationSize, 1 << 20);
    EXPECT_EQ(setEnd(4), STATUS_SUCCESS);
    EXPECT_EQ(setAllocation(1 << 20), STATUS_SUCCESS); // room, not length
    EXPECT_EQ(StandardOf(file).EndOfFile, 4);
    EXPECT_GE(StandardOf(file).AllocationSize, 1 << 20);
    EXPECT_EQ(setAllocation(3), STATUS_SUCCESS);
    EXPECT_EQ(StandardOf(file).EndOfFile, 3);
    EXPECT_EQ(setEnd(-1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(setAllocation(-1), STATUS_INVALID_PARAMETER);
}

TEST_F(Information, TheModeIsSetWithinItsBounds)
{
    MakeFile("file");
    NtFile file = Open("file", {.access = GENERIC_ALL});
    auto set = [&](uint32_t mode) { return Set(file, FileModeInformation, FILE_MODE_INFORMATION{mode}); };
    EXPECT_EQ(set(FILE_SYNCHRONOUS_IO_ALERT | FILE_WRITE_THROUGH), STATUS_SUCCESS);
    EXPECT_EQ(set(FILE_WRITE_THROUGH), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(set(FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(set(FILE_SYNCHRONOUS_IO_ALERT | FILE_DELETE_ON_CLOSE), STATUS_INVALID_PARAMETER);
    FILE_MODE_INFORMATION mode{};
    EXPECT_EQ(Query(file, FileModeInformation, &mode).status, STATUS_SUCCESS);
    EXPECT_EQ(mode.Mode, FILE_SYNCHRONOUS_IO_ALERT | FILE_WRITE_THROUGH);
}

TEST_F(Information, VolumesAreTold)
{
    NtFile folder = Open("", {.access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    const struct {
        uint32_t infoClass;
        uint32_t length;
        Outcome outcome;
    } cases[] = {
        {FileFsVolumeInformation, 24, {STATUS_SUCCESS, 18}},
        {FileFsSizeInformation, 24, {STATUS_SUCCESS, 24}},
        {FileFsDeviceInformation, 8, {STATUS_SUCCESS, 8}},
        {FileFsAttributeInformation, 16, {STATUS_BUFFER_OVERFLOW, 16}},
        {FileFsFullSizeInformation, 32, {STATUS_SUCCESS, 32}},
        {FileFsObjectIdInformation, 64, {STATUS_INVALID_DEVICE_REQUEST, 0}},
        {FileFsSectorSizeInformation, 28, {STATUS_SUCCESS, 28}},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(QueryVolumeLength(folder, test.infoClass, test.length), test.outcome) << test.infoClass;
        EXPECT_EQ(QueryVolumeLength(folder, test.infoClass, test.length - 1),
                  (Outcome{STATUS_INFO_LENGTH_MISMATCH, 0}))
            << test.infoClass;
    }
    EXPECT_EQ(QueryVolumeLength(folder, FileFsAttributeInformation, 20), (Outcome{STATUS_SUCCESS, 20}));
    EXPECT_EQ(QueryVolumeLength(folder, FileFsLabelInformation, 64).status, STATUS_INVALID_INFO_CLASS);

    FILE_FS_FULL_SIZE_INFORMATION size{};
    IO_STATUS_BLOCK io{};
    EXPECT_EQ(NtQueryVolumeInformationFile(folder, &io, &size, sizeof(size), FileFsFullSizeInformation),
              STATUS_SUCCESS);
    struct statvfs volume;
    ASSERT_EQ(statvfs(root.c_str(), &volume), 0);
    EXPECT_EQ(size.TotalAllocationUnits * size.SectorsPerAllocationUnit * size.BytesPerSector,
              static_cast<int64_t>(volume.f_blocks * volume.f_frsize));
    EXPECT_GE(size.ActualAvailableAllocationUnits, size.CallerAvailableAllocationUnits);
    EXPECT_EQ(NtSetVolumeInformationFile(folder, &io, &size, sizeof(size), FileFsLabelInformation),
              STATUS_INVALID_INFO_CLASS);
}

} // namespace

} // namespace fodr::nt
