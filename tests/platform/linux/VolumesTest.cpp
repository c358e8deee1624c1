#include "platform/Volumes.h"

#include "RealMount.h"
#include "lib/unicode/CodeSet.h"
#include "ntposix/DriveLetters.h"
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
        {"\\\\server\\share", "error 53"},
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
