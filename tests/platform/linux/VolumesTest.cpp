#include "platform/Volumes.h"

#include "RealMount.h"
#include "lib/unicode/CodeSet.h"
#include "ntposix/NtName.h"
#include "platform/Nt.h"
#include "platform/SystemError.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace fodr::platform {
namespace {

using test::EnvironmentVariable;
using test::ScratchFolder;
using test::TmpfsMount;

std::u16string Wide(const std::string &text)
{
    std::u16string wide;
    EXPECT_TRUE(Utf8ToUtf16(text, wide));
    return wide;
}

std::string Narrow(const std::u16string &text)
{
    std::string narrow;
    EXPECT_TRUE(Utf16ToUtf8(text, narrow));
    return narrow;
}

std::string MountPoint(const std::string &path)
{
    std::u16string mountPoint;
    const uint32_t error = MountPointOfPath(Wide(path), mountPoint);
    if (error != kErrorSuccess)
        return "error " + std::to_string(error);
    std::string text = Narrow(mountPoint);
    for (char &c : text)
        c = c == '\\' ? '/' : c;
    return text;
}

// Whether the file calls open a file by the name.
bool Opens(const std::string &path)
{
    const std::u16string text = u"\\??\\" + Wide(path);
    const auto bytes = static_cast<uint16_t>(text.size() * sizeof(char16_t));
    nt::UNICODE_STRING name{bytes, bytes, const_cast<char16_t *>(text.data())};
    nt::OBJECT_ATTRIBUTES attributes{sizeof(nt::OBJECT_ATTRIBUTES), nullptr, &name,
                                     nt::OBJ_CASE_INSENSITIVE,      nullptr, nullptr};
    nt::IO_STATUS_BLOCK ioStatus{};
    nt::HANDLE handle = nullptr;
    if (nt::IsError(nt::NtCreateFile(&handle, nt::FILE_READ_ATTRIBUTES, &attributes, &ioStatus, nullptr, 0, 7,
                                     nt::FILE_OPEN, 0, nullptr, 0)))
        return false;
    nt::NtClose(handle);
    return true;
}

TEST(DriveLetters, TheVariableIsTheWholeTable)
{
    const ScratchFolder scratch;
    const std::string drives =
        "d=" + scratch.Path() + "/;X=/;Y=relative;Q;1=/;Z=/nowhere/at/all;;X2=/;E=/dev/null";
    const EnvironmentVariable variable("FODR_DRIVES", drives.c_str());
    const struct {
        char letter;
        std::string path;
        DriveType type;
    } rows[] = {
        {'D', scratch.Path(), kDriveFixed},
        {'d', scratch.Path(), kDriveFixed},
        {'X', "/", kDriveFixed},
        {'Z', "/nowhere/at/all", kDriveNoRootDir},
        {'E', "/dev/null", kDriveNoRootDir},
        {'C', "", kDriveNoRootDir},
        {'Y', "", kDriveNoRootDir},
        {'1', "", kDriveNoRootDir},
        {'[', "", kDriveNoRootDir},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(LocalPathOfDriveLetter(row.letter), row.path) << row.letter;
        // What the scratch folder is on is this machine's choice.
        if (row.type == kDriveNoRootDir) {
            EXPECT_EQ(DriveTypeOfLetter(row.letter), row.type) << row.letter;
        } else {
            EXPECT_GT(DriveTypeOfLetter(row.letter), kDriveNoRootDir) << row.letter;
        }
        EXPECT_EQ(ntposix::PathOfDriveLetter(row.letter), row.path) << row.letter;
    }
}

TEST(DriveLetters, WithoutTheVariableCIsTheRoot)
{
    const EnvironmentVariable variable("FODR_DRIVES", nullptr);
    EXPECT_EQ(LocalPathOfDriveLetter('c'), "/");
    EXPECT_GT(DriveTypeOfLetter('C'), kDriveNoRootDir);
    EXPECT_EQ(LocalPathOfDriveLetter('A'), "");
    EXPECT_EQ(DriveTypeOfLetter('B'), kDriveNoRootDir);
}

TEST(DriveLetters, AFolderIsADriveUntilItHasAMediumThatIsGone)
{
    FODR_NEEDS_MOUNTS();
    const ScratchFolder scratch;
    const std::string folder = scratch.MakeFolder("drive");
    const EnvironmentVariable variable("FODR_DRIVES", ("M=" + folder).c_str());
    const auto expectDrive = [&](bool isThere) {
        EXPECT_EQ(LocalPathOfDriveLetter('M'), isThere ? folder : "");
        EXPECT_EQ(DriveTypeOfLetter('M') != kDriveNoRootDir, isThere);
        EXPECT_EQ(Opens("M:\\"), isThere);
    };
    expectDrive(true);
    for (int time = 0; time < 2; ++time) {
        TmpfsMount medium(folder);
        expectDrive(true);
        medium.Unmount();
        expectDrive(false);
    }
    const EnvironmentVariable another("FODR_DRIVES", ("M=" + folder + ";N=/").c_str());
    expectDrive(true); // a new table knows nothing yet
}

TEST(Volumes, AMountIsFoundFromAnyPathInIt)
{
    FODR_NEEDS_MOUNTS();
    const ScratchFolder scratch;
    const std::string drive = scratch.MakeFolder("Drive");
    TmpfsMount tmpfs(drive);
    std::filesystem::create_directories(drive + "/sub/Folder");
    std::filesystem::create_directory_symlink(drive + "/sub", scratch / "link");
    std::filesystem::create_directory_symlink("loop", scratch / "loop");
    const std::string bound = scratch.MakeFolder("bound");
    ASSERT_EQ(mount((drive + "/sub").c_str(), bound.c_str(), nullptr, MS_BIND, nullptr), 0);
    const EnvironmentVariable variable("FODR_DRIVES", ("R=" + drive).c_str());

    const std::string outside = MountPoint(scratch.Path());
    EXPECT_NE(outside, drive);
    const struct {
        std::string path;
        std::string mountPoint;
    } rows[] = {
        {drive, drive},
        {drive + "/sub/", drive},
        {drive + "/not/there\\yet", drive},
        {scratch.Path() + "\\dRIVE\\SUB\\folder", drive}, // as a remote machine may write it
        {"R:", drive},
        {"r:\\sub\\new", drive},
        {scratch / "link/Folder", drive},
        {scratch / "link/../x", drive},
        {scratch / "loop/x", outside},
        {scratch / "bound/Folder", bound},
        {"/", "/"},
        {"\\", "/"},
        {"", "/"},
        {"S:\\x", "error 3"},
        {"UNC\\server\\share", "error 123"},
        {"relative", "error 123"},
        {"/a?b", "error 123"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(MountPoint(row.path), row.mountPoint) << row.path;
    umount2(bound.c_str(), MNT_DETACH);

    EXPECT_EQ(DriveTypeOfLetter('R'), kDriveRamDisk);
    uint64_t bytes = 0;
    EXPECT_TRUE(FreeSpaceOfFolder(drive, bytes));
    EXPECT_GT(bytes, 0U);
    EXPECT_LE(bytes, 64U * 1024);
    EXPECT_FALSE(FreeSpaceOfFolder("/nowhere/at/all", bytes));

    std::u16string name;
    EXPECT_EQ(VolumeNameOfMountPoint(Wide(drive + "/"), name), kErrorNotSupported); // no disk behind it
    EXPECT_EQ(VolumeNameOfMountPoint(Wide(drive + "/sub/"), name), kErrorInvalidName);
}

TEST(Volumes, EveryNameThatOpensAFileIsOnThatFilesVolume)
{
    FODR_NEEDS_MOUNTS();
    const ScratchFolder scratch;
    const std::string drive = scratch.MakeFolder("Drive");
    const std::string outside = MountPoint(scratch.Path());
    TmpfsMount tmpfs(drive);
    for (const char *name : {"f", "we\\ird:", "dot. ", "\xFF"})
        std::ofstream(drive + "/" + name).put('x');
    std::filesystem::create_directory(drive + "/Sub");
    std::ofstream(drive + "/Sub/f").put('x');
    std::filesystem::create_directory_symlink(drive, scratch / "link");
    std::filesystem::create_symlink(drive + "/f", scratch / "fileLink");
    // Of two that differ in case alone, whichever was there first.
    std::filesystem::create_directory_symlink(drive, scratch / "ONE");
    std::ofstream(scratch.MakeFolder("one") + "/f").put('x');
    std::ofstream(scratch.MakeFolder("two") + "/f").put('x');
    std::filesystem::create_directory_symlink(drive, scratch / "TWO");
    std::ofstream(scratch.MakeFolder("RED") + "/f").put('x');
    std::filesystem::create_directory_symlink(drive, scratch / "red");
    std::filesystem::create_directory_symlink(drive, scratch / "blue");
    std::ofstream(scratch.MakeFolder("BLUE") + "/f").put('x');
    const EnvironmentVariable variable("FODR_DRIVES", ("R=" + drive).c_str());
    const std::string &base = scratch.Path();
    std::string twice = "\\" + base;
    twice[1] = '\\';
    const struct {
        std::string path;
        bool opens;
        bool onDrive = true;
    } rows[] = {
        {base + "\\link\\f::$DATA", true},
        {base + "\\link\\F::$data", true},
        {base + "\\LINK\\sub::$DATA\\", true},
        {base + "\\link::$DATA", true},
        {base + "\\link\\new::$DATA", false},
        {base + "\\fileLink::$DATA", true},
        {base + "\\link\\f:stream", false},
        {"r:\\sub\\f::$DATA", true},
        {"R:\\", true},
        {twice + "\\link\\f", true},
        {base + "\\link\\we\xEF\x81\x9Cird\xEF\x80\xBA", true},
        {base + "\\LINK\\WE\xEF\x81\x9CIRD\xEF\x80\xBA::$DATA", true},
        {base + "\\link\\\xEF\x9F\xBF::$DATA", true}, // the byte that isn't text
        {base + "\\link\\dot. ", true},
        {base + "\\link\\dot", false},
        {base + "\\link\\f.", false},
        {base + "\\.\\link\\f", false},
        {base + "\\link\\\\f", false},
        {base + "\\One\\f", true},
        {base + "\\Two\\f", true},
        {base + "\\Red\\f", true, false},
        {base + "\\Blue\\f", true, false},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(Opens(row.path), row.opens) << row.path;
        EXPECT_EQ(MountPoint(row.path), row.onDrive ? drive : outside) << row.path;
    }
    LinkKind kind = LinkKind::Missing;
    EXPECT_EQ(QueryLinkKind(Wide(scratch / "FILELINK::$DATA"), kind), kErrorSuccess);
    EXPECT_EQ(kind, LinkKind::SymbolicLink);
    for (const char *path : {"/a:b:c", "/a:", "/a:b/c"})
        EXPECT_EQ(MountPoint(path), "error 123") << path;
}

TEST(Volumes, LinksAreToldFromWhatTheyLeadTo)
{
    const ScratchFolder scratch;
    scratch.MakeFolder("folder");
    std::ofstream(scratch / "file").put('x');
    std::filesystem::create_symlink("folder", scratch / "link");
    std::filesystem::create_symlink("a\\b:c/d", scratch / "odd");
    const struct {
        const char *name;
        LinkKind kind;
        uint32_t error;
    } rows[] = {
        {"folder", LinkKind::Directory, kErrorSuccess},  {"file", LinkKind::File, kErrorSuccess},
        {"link", LinkKind::SymbolicLink, kErrorSuccess}, {"LINK", LinkKind::SymbolicLink, kErrorSuccess},
        {"gone", LinkKind::Missing, kErrorFileNotFound}, {"file/x", LinkKind::Missing, kErrorPathNotFound},
    };
    for (const auto &row : rows) {
        LinkKind kind = LinkKind::Junction;
        EXPECT_EQ(QueryLinkKind(Wide(scratch / row.name), kind), row.error) << row.name;
        EXPECT_EQ(kind, row.kind) << row.name;
    }
    std::u16string target;
    EXPECT_EQ(ReadLinkTarget(Wide(scratch / "link"), target), kErrorSuccess);
    EXPECT_EQ(target, u"folder");
    EXPECT_EQ(ReadLinkTarget(Wide(scratch / "odd"), target), kErrorSuccess);
    EXPECT_EQ(target, u"a\uF05Cb\uF03Ac/d");
    EXPECT_NE(ReadLinkTarget(Wide(scratch / "file"), target), kErrorSuccess);
    // A drive that stands for a link is what that leads to.
    const EnvironmentVariable variable("FODR_DRIVES", ("L=" + (scratch / "link")).c_str());
    LinkKind kind = LinkKind::Missing;
    EXPECT_EQ(QueryLinkKind(u"L:\\", kind), kErrorSuccess);
    EXPECT_EQ(kind, LinkKind::Directory);
}

TEST(Volumes, AFolderIsTheSameUnderAllOfItsNames)
{
    const ScratchFolder scratch;
    // Two roots of one number, where mounting is allowed.
    const TmpfsMount big(scratch.MakeFolder("Docs")), small(scratch.MakeFolder("docs"));
    for (const char *name : {"Only", "Docs/x"})
        scratch.MakeFolder(name);
    std::ofstream(scratch / "file").put('x');
    std::filesystem::create_symlink("Docs", scratch / "link");
    const EnvironmentVariable variable("FODR_DRIVES", ("D=" + (scratch / "Docs")).c_str());
    const struct {
        std::u16string a, b;
        bool same;
    } rows[] = {
        {Wide(scratch / "Docs"), Wide(scratch / "Docs/"), true},
        {Wide(scratch / "Docs"), Wide(scratch / "docs"), false},
        {Wide(scratch / "Docs/x"), Wide(scratch / "LINK/X"), true},
        {Wide(scratch / "Only"), Wide(scratch / "ONLY"), true},
        {Wide(scratch / "Docs"), u"d:", true},
        {u"D:\\X", u"d:\\x", true},
        {u"", u"/", true},
        {Wide(scratch / "file"), Wide(scratch / "file"), false},
        {Wide(scratch / "gone"), Wide(scratch / "gone"), false},
        {u"E:", u"E:", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(IsSameFolder(row.a, row.b), row.same) << std::string(row.a.begin(), row.a.end());
}

TEST(Volumes, ADeviceThatIsNotThereDoesNotOpen)
{
    StorageDevice device;
    uint32_t busType = 0;
    StorageDeviceNumber number{};
    EXPECT_EQ(device.Open(u"/dev/block/4000:1#0"), kErrorFileNotFound);
    EXPECT_EQ(device.Open(u"\\\\?\\Volume{1}"), kErrorInvalidName);
    EXPECT_EQ(device.QueryBusType(busType), kErrorInvalidHandle);
    EXPECT_EQ(device.QueryNumber(number), kErrorInvalidHandle);
    StorageDeviceList list;
    EXPECT_FALSE(list.HasEntry(0));
    uint32_t parent = 0;
    std::string id;
    EXPECT_FALSE(ParentOfDeviceInstance(0x7FF00000, parent));
    EXPECT_FALSE(IdOfDeviceInstance(0xFFF00000, id));
}

} // namespace
} // namespace fodr::platform
