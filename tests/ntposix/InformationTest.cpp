#include "WireExamples.h"
#include "lib/unicode/NameMapping.h"
#include "ntposix/NtWords.h"

#include <span>
#include <sys/statvfs.h>

namespace fodr::nt {

namespace {

using Asking = NTSTATUS (*)(HANDLE, IO_STATUS_BLOCK *, void *, uint32_t, uint32_t);

Outcome Ask(Asking call, HANDLE file, uint32_t infoClass, uint32_t length)
{
    std::vector<uint8_t> buffer(length); // exactly that long: a byte too many is noticed
    IO_STATUS_BLOCK io{};
    const NTSTATUS status = call(file, &io, buffer.data(), length, infoClass);
    return {status, io.Information};
}

struct LeastLength {
    uint32_t infoClass, length;
};

void ExpectLeastLengths(Asking call, HANDLE file, NTSTATUS status, std::span<const LeastLength> classes)
{
    const bool filled = status == STATUS_SUCCESS || status == STATUS_BUFFER_OVERFLOW;
    for (const auto &[infoClass, length] : classes) {
        SCOPED_TRACE(infoClass);
        EXPECT_EQ(Ask(call, file, infoClass, length), (Outcome{status, filled ? length : 0}));
        EXPECT_EQ(Ask(call, file, infoClass, length - 1), (Outcome{STATUS_INFO_LENGTH_MISMATCH, 0}));
    }
}

// A record with a name behind it.
template <typename Record> struct Named {
    Record record;
    char16_t rest[500];
};

std::string TextOf(const FILE_NAME_INFORMATION &name)
{
    std::u16string text(name.FileNameLength / 2, u'\0');
    memcpy(text.data(), reinterpret_cast<const char *>(&name) + offsetof(FILE_NAME_INFORMATION, FileName),
           name.FileNameLength);
    return Utf8(text);
}

using Information = NtFixture;

TEST_F(Information, EveryClassHasItsLength)
{
    MakeFile("file", "content");
    const NtFile file = Open("file", {.access = GENERIC_ALL});
    const LeastLength whole[] = {
        {FileBasicInformation, 40},       {FileStandardInformation, 24},    {FileInternalInformation, 8},
        {FileEaInformation, 4},           {FileAccessInformation, 4},       {FilePositionInformation, 8},
        {FileModeInformation, 4},         {FileAlignmentInformation, 4},    {FileCompressionInformation, 16},
        {FileNetworkOpenInformation, 56}, {FileAttributeTagInformation, 8}, {FileIdInformation, 24},
        {FileStatInformation, 72},        {FileStatLxInformation, 96},      {FileCaseSensitiveInformation, 4},
    };
    const LeastLength cut[] = {
        {FileNameInformation, 8}, {FileAllInformation, 104}, {FileStreamInformation, 32}};
    const LeastLength missing[] = {{FileAlternateNameInformation, 8}};
    ExpectLeastLengths(NtQueryInformationFile, file, STATUS_SUCCESS, whole);
    ExpectLeastLengths(NtQueryInformationFile, file, STATUS_BUFFER_OVERFLOW, cut);
    ExpectLeastLengths(NtQueryInformationFile, file, STATUS_OBJECT_NAME_NOT_FOUND, missing);
    const auto ask = [&](uint32_t infoClass, uint32_t length) {
        return Ask(NtQueryInformationFile, file, infoClass, length);
    };
    const uint64_t name = (NtPath("file").size() - 4) * 2;
    EXPECT_EQ(ask(FileNameInformation, 1024), (Outcome{STATUS_SUCCESS, 4 + name}));
    EXPECT_EQ(ask(FileNameInformation, 11), (Outcome{STATUS_BUFFER_OVERFLOW, 10}));
    EXPECT_EQ(ask(FileAllInformation, 1024), (Outcome{STATUS_SUCCESS, 100 + name}));
    EXPECT_EQ(ask(FileStreamInformation, 38), (Outcome{STATUS_SUCCESS, 38}));
    for (uint32_t other :
         {0u, FileRenameInformation, FileDispositionInformation, FileBothDirectoryInformation, 99u})
        EXPECT_EQ(ask(other, 1024), (Outcome{STATUS_INVALID_INFO_CLASS, 0})) << other;

    IO_STATUS_BLOCK io{};
    const uint8_t bytes[128] = {};
    const LeastLength set[] = {
        {FileBasicInformation, 40},   {FileEndOfFileInformation, 8}, {FileAllocationInformation, 8},
        {FilePositionInformation, 8}, {FileModeInformation, 4},      {FileDispositionInformation, 1},
        {FileRenameInformation, 24},
    };
    for (const auto &[infoClass, length] : set)
        EXPECT_EQ(NtSetInformationFile(file, &io, bytes, length - 1, infoClass), STATUS_INFO_LENGTH_MISMATCH);
    for (uint32_t other : {FileAllInformation, FileStatInformation, FileCaseSensitiveInformation})
        EXPECT_EQ(NtSetInformationFile(file, &io, bytes, 128, other), STATUS_INVALID_INFO_CLASS) << other;
}

TEST_F(Information, ARenameNameStaysInItsBuffer)
{
    MakeFile("file");
    const NtFile file = Doomed("file");
    for (uint32_t length : {4u, 5u, 6u, 1000u, 0xFFFFFFFEu, 0u, 3u}) {
        FILE_RENAME_INFORMATION record{};
        record.FileNameLength = length;
        EXPECT_EQ(Set(file, FileRenameInformation, record),
                  length == 4 ? STATUS_OBJECT_PATH_SYNTAX_BAD : STATUS_INVALID_PARAMETER)
            << length;
    }
}

TEST_F(Information, FactsAreThoseOfTheFile)
{
    MakeFile(".hidden", "content");
    std::filesystem::create_hard_link(root / ".hidden", root / "visible");
    const NtFile file = Open(".hidden");
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
    EXPECT_EQ(IdOf(file) & kInodeBits, stat.st_ino & kInodeBits);

    const NtFile folder = Folder("");
    EXPECT_EQ(StandardOf(folder).Directory, 1);
    EXPECT_EQ(StandardOf(folder).EndOfFile, 0);
    EXPECT_EQ(BasicOf(folder).FileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(Ask(NtQueryInformationFile, folder, FileStreamInformation, 32), (Outcome{STATUS_SUCCESS, 0}));

    const auto [all, rest] = Told<Named<FILE_ALL_INFORMATION>>(Open("VISIBLE"), FileAllInformation);
    EXPECT_EQ(all.StandardInformation.EndOfFile, 7);
    EXPECT_EQ(all.AccessInformation.AccessFlags, 0x120089u); // what GENERIC_READ means
    EXPECT_EQ(all.ModeInformation.Mode, FILE_SYNCHRONOUS_IO_NONALERT);
    // The name as it is on disk, not as it was asked for.
    EXPECT_EQ(TextOf(all.NameInformation), Utf8(NtPathFromPosix(Path("visible"))));
}

TEST_F(Information, ADirectoryIsToldWhereItIsNow)
{
    MakeFolder("a/folder");
    const NtFile folder = Folder("a\\folder");
    const auto expect = [&](NTSTATUS status, const char *path) {
        const std::string name = Utf8(NtPathFromPosix(Path(path)));
        Named<FILE_NAME_INFORMATION> alone;
        EXPECT_EQ(Query(folder, FileNameInformation, &alone), status);
        EXPECT_TRUE(status != STATUS_SUCCESS || TextOf(alone.record) == name);
        const auto all = Told<Named<FILE_ALL_INFORMATION>>(folder, FileAllInformation);
        EXPECT_EQ(TextOf(all.record.NameInformation), name);
    };
    OthersMove("a", "b");
    expect(STATUS_SUCCESS, "b/folder");
    std::filesystem::remove_all(root / "b");
    expect(STATUS_FILE_DELETED, "a/folder"); // as it was opened
}

// Every name of a file and every class that has its id tell the same one; a replacement has another.
TEST_F(Information, AFileHasOneIdAsLongAsItLives)
{
    MakeFile("a", "content");
    std::filesystem::create_hard_link(root / "a", root / "b");
    MakeSymlink("a", "link");
    struct stat stat;
    ASSERT_EQ(::stat(Path("a").c_str(), &stat), 0);
    const NtFile file = Open("a", {.access = FILE_READ_ATTRIBUTES});
    const uint64_t id = IdOf(file);
    EXPECT_EQ(id >> 63, 0u);
    const auto wide = Told<FILE_ID_INFORMATION>(file, FileIdInformation);
    EXPECT_EQ(wide.VolumeSerialNumber, stat.st_dev);
    EXPECT_EQ(memcmp(wide.FileId, &id, sizeof(id)), 0);
    EXPECT_EQ(std::count(wide.FileId + 8, wide.FileId + 16, 0), 8);
    const auto lx = Told<FILE_STAT_LX_INFORMATION>(file, FileStatLxInformation);
    const auto plain = Told<FILE_STAT_INFORMATION>(file, FileStatInformation);
    EXPECT_EQ(memcmp(&plain, &lx.Stat, sizeof(plain)), 0);
    EXPECT_EQ(static_cast<uint64_t>(plain.FileId), id);
    const auto facts = Told<FILE_NETWORK_OPEN_INFORMATION>(file, FileNetworkOpenInformation);
    EXPECT_EQ(memcmp(&plain.CreationTime, &facts.CreationTime, 48), 0); // times and sizes
    EXPECT_EQ(plain.FileAttributes, facts.FileAttributes);
    EXPECT_EQ(plain.NumberOfLinks, 2u);
    EXPECT_EQ(plain.EffectiveAccess, FILE_READ_ATTRIBUTES | SYNCHRONIZE);
    EXPECT_EQ(lx.LxFlags, LX_FILE_METADATA_HAS_UID | LX_FILE_METADATA_HAS_GID | LX_FILE_METADATA_HAS_MODE);
    EXPECT_EQ(lx.LxUid, stat.st_uid);
    EXPECT_EQ(lx.LxGid, stat.st_gid);
    EXPECT_EQ(lx.LxMode, stat.st_mode);
    EXPECT_EQ(Told<FILE_CASE_SENSITIVE_INFORMATION>(Folder(""), FileCaseSensitiveInformation).Flags, 0u);
    FILE_STAT_LX_INFORMATION refused;
    EXPECT_EQ(Query(Open("a", {.access = FILE_READ_DATA}), FileStatLxInformation, &refused),
              STATUS_ACCESS_DENIED);

    MakeFile("a", "other content");
    OthersMove("a", "c");
    for (const char *name : {"b", "c"})
        EXPECT_EQ(IdOf(Open(name)), id) << name;
    EXPECT_NE(IdOf(Open("link", {.access = FILE_READ_ATTRIBUTES, .options = FILE_OPEN_REPARSE_POINT})), id);
    MakeFile("new");
    OthersMove("new", "b");
    EXPECT_NE(IdOf(Open("b")), id);
    EXPECT_EQ(IdOf(file), id);
}

TEST(StatLx, IsLaidOutAsDocumented)
{
    constexpr int64_t kTime = 0x01D9'0000'0000'0000;
    const FILE_STAT_LX_INFORMATION record{.Stat = {0x1A2B'0000'0001'E240, kTime, kTime, kTime, kTime, 4096, 5,
                                                   FILE_ATTRIBUTE_ARCHIVE, 0, 2, 0x120089},
                                          .LxFlags = 7,
                                          .LxUid = 1000,
                                          .LxGid = 100,
                                          .LxMode = 0100644,
                                          .LxDeviceIdMajor = 0,
                                          .LxDeviceIdMinor = 0};
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    EXPECT_EQ(Bytes(bytes, bytes + sizeof(record)), WireExample("Facts in one record"));
}

TEST_F(Information, TimesAndReadOnlyAreSet)
{
    MakeFile("file");
    chmod(Path("file").c_str(), 0664);
    constexpr int64_t kTime = 131'000'000'000'000'001;
    const auto set = [](HANDLE file, const FILE_BASIC_INFORMATION &record) {
        return Set(file, FileBasicInformation, record);
    };
    for (uint32_t access : {GENERIC_ALL, FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES}) {
        const NtFile file = Open("file", {.access = access});
        const FILE_BASIC_INFORMATION before = BasicOf(file);
        EXPECT_EQ(set(file, {0, 0, kTime, 0, 0}), STATUS_SUCCESS);
        EXPECT_EQ(BasicOf(file).LastWriteTime, kTime);
        EXPECT_EQ(BasicOf(file).LastAccessTime, before.LastAccessTime);
        EXPECT_EQ(set(file, {-1, kTime + 9, -1, -1, FILE_ATTRIBUTE_READONLY}), STATUS_SUCCESS);
        EXPECT_EQ(BasicOf(file).LastAccessTime, kTime + 9);
        EXPECT_EQ(BasicOf(file).FileAttributes, FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY);
        EXPECT_EQ(Open("file", {.access = GENERIC_WRITE}).status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(set(file, {0, 0, 0, 0, FILE_ATTRIBUTE_NORMAL}), STATUS_SUCCESS);
        struct stat stat;
        ASSERT_EQ(::stat(Path("file").c_str(), &stat), 0);
        EXPECT_EQ(stat.st_mode & 0777, 0664u); // no other bit was touched
        EXPECT_EQ(set(file, {0, 0, 0, 0, FILE_ATTRIBUTE_DIRECTORY}), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(set(Open("file"), {}), STATUS_ACCESS_DENIED);

    // A record from the wire has no padding, whatever length is told.
    const std::vector<uint8_t> unpadded(36);
    IO_STATUS_BLOCK io{};
    EXPECT_EQ(NtSetInformationFile(Open("file", {.access = GENERIC_ALL}), &io, unpadded.data(), 40,
                                   FileBasicInformation),
              STATUS_SUCCESS);
}

TEST_F(Information, SizesAreSet)
{
    MakeFile("file", "0123456789");
    const NtFile file = Open("file", {.access = GENERIC_ALL});
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
    const NtFile file = Open("file", {.access = GENERIC_ALL});
    auto set = [&](uint32_t mode) { return Set(file, FileModeInformation, FILE_MODE_INFORMATION{mode}); };
    EXPECT_EQ(set(FILE_SYNCHRONOUS_IO_ALERT | FILE_WRITE_THROUGH), STATUS_SUCCESS);
    for (const uint32_t improper : {FILE_WRITE_THROUGH, FILE_SYNCHRONOUS_IO_ALERT | FILE_DELETE_ON_CLOSE,
                                    FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT})
        EXPECT_EQ(set(improper), STATUS_INVALID_PARAMETER) << improper;
    EXPECT_EQ(Told<FILE_MODE_INFORMATION>(file, FileModeInformation).Mode,
              FILE_SYNCHRONOUS_IO_ALERT | FILE_WRITE_THROUGH);
}

TEST_F(Information, VolumesAreTold)
{
    const NtFile folder = Open("", {.access = FILE_READ_ATTRIBUTES});
    constexpr Asking kVolume = NtQueryVolumeInformationFile;
    const LeastLength whole[] = {
        {FileFsSizeInformation, 24},
        {FileFsDeviceInformation, 8},
        {FileFsFullSizeInformation, 32},
        {FileFsSectorSizeInformation, 28},
    };
    const LeastLength cut[] = {{FileFsAttributeInformation, 16}},
                      refused[] = {{FileFsObjectIdInformation, 64}};
    ExpectLeastLengths(kVolume, folder, STATUS_SUCCESS, whole);
    ExpectLeastLengths(kVolume, folder, STATUS_BUFFER_OVERFLOW, cut);
    ExpectLeastLengths(kVolume, folder, STATUS_INVALID_DEVICE_REQUEST, refused);
    EXPECT_EQ(Ask(kVolume, folder, FileFsVolumeInformation, 24), (Outcome{STATUS_SUCCESS, 18}));
    EXPECT_EQ(Ask(kVolume, folder, FileFsVolumeInformation, 23), (Outcome{STATUS_INFO_LENGTH_MISMATCH, 0}));
    EXPECT_EQ(Ask(kVolume, folder, FileFsAttributeInformation, 20), (Outcome{STATUS_SUCCESS, 20}));
    EXPECT_EQ(Ask(kVolume, folder, FileFsLabelInformation, 64).status, STATUS_INVALID_INFO_CLASS);

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
