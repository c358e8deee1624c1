#include "RealMount.h"
#include "UsbStick.h"
#include "drives/DriveWatcher.h"
#include "drives/FodrDeviceUtils.h"
#include "drives/RecordingSubscriber.h"
#include "runtime/CapturedLog.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <string>
#include <tuple>
#include <utility>

namespace fodr {
namespace {

using test::EnvironmentVariable;
using test::RecordingSubscriber;
using test::ScratchFolder;

bool Logged(const std::string &part)
{
    return testing::Matches(testing::Contains(testing::HasSubstr(part)))(CapturedLog::Lines());
}

TEST(LinkPath, FollowsChainsOfSymbolicLinks)
{
    const ScratchFolder scratch;
    const std::string folder = scratch.MakeFolder("folder");
    scratch.MakeFolder("folder/sub");
    const std::string deep = scratch.MakeFolder("a/b");
    const std::pair<const char *, const char *> links[] = {
        {"absolute", folder.c_str()}, {"relative", "folder/sub"}, {"chain", "relative"},
        {"a/b/up", "../../folder"},   {"dangling", "gone"},       {"loop1", "loop2"},
        {"loop2", "loop1"},           {"self", "self"},           {"tail", "folder/"},
        {"odd", "we\\ird:"},
    };
    for (const auto &[link, target] : links)
        std::filesystem::create_symlink(target, scratch / link);
    const EnvironmentVariable variable("FODR_DRIVES", ("S=" + scratch.Path()).c_str());
    const std::pair<std::string, std::string> rows[] = {
        {folder, folder},
        {scratch / "no such", scratch / "no such"},
        {"", ""},
        {"\xFF", "\xFF"},
        {scratch / "absolute", folder},
        {scratch / "relative", scratch / "folder/sub"},
        {scratch.Path() + "\\RELATIVE", scratch.Path() + "\\folder/sub"},
        {scratch / "chain", scratch / "folder/sub"},
        {deep + "/up", deep + "/../../folder"},
        {"S:\\relative", "S:\\folder/sub"},
        {scratch / "relative/", scratch / "folder/sub"},
        {scratch / "absolute/sub", scratch / "absolute/sub"}, // only the last component is looked at
        {scratch / "tail", scratch / "folder/"},
        {scratch / "dangling", scratch / "gone"},
        {scratch / "odd", scratch / "we\xEF\x81\x9Cird\xEF\x80\xBA"},
    };
    for (const auto &[path, result] : rows)
        EXPECT_EQ(FodrClientUtils::GetLinkPath(path), result) << path;
    for (const char *name : {"loop1", "self"}) // are followed to an end
        EXPECT_TRUE(std::filesystem::is_symlink(FodrClientUtils::GetLinkPath(scratch / name))) << name;
}

TEST(DeviceId, IsTakenFromTheFirstPlaceWithBothNumbers)
{
    const std::pair<const char *, const char *> rows[] = {
        {"USB\\VID_0781&PID_5567\\4C530001", "0781:5567"},
        {"VID_aBcD&PID_00Ef", "aBcD:00Ef"},
        {"VID_07VID_0781&PID_5567", "0781:5567"},
        {"VID_0781&PID_556gVID_1234&PID_5678", "1234:5678"},
        {"USB\\ROOT_HUB30\\4&1", "left:so"},
        {"VID_0781&PID_556", "left:so"},
        {"vid_0781&pid_5567", "left:so"},
        {"VID_0781&REV_01&PID_5567", "left:so"},
        {"VID_", "left:so"},
        {"", "left:so"},
    };
    for (const auto &[id, found] : rows) {
        std::string vid = "left";
        std::string pid = "so";
        const bool isFound = FodrDeviceUtils::ParseDeviceInstanceId(id, vid, pid);
        EXPECT_EQ(isFound, vid != "left") << id;
        EXPECT_EQ(vid + ":" + pid, found) << id;
    }
}

TEST(DeviceInfo, IsEmptyForWhatIsOnNoDisk)
{
    FODR_NEEDS_MOUNTS();
    const ScratchFolder scratch;
    test::TmpfsMount tmpfs(scratch.MakeFolder("drive"));
    CapturedLog log(LOG_LEVEL_TRACE);
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo(scratch / "drive/new"), "");
    EXPECT_TRUE(Logged("Failed to get volume unique name for mount point "));
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo("relative"), "");
    EXPECT_TRUE(Logged("Failed to get mount point for folder relative"));
}

TEST(DeviceInfo, OfAUsbStick)
{
    FODR_NEEDS_MOUNTS();
    test::RunWithUsbStick("WithUsbStick.*", 3);
}

// The tests below run in the process that sees the stick.
class WithUsbStick : public testing::Test {
protected:
    void SetUp() override
    {
        if (!stick.IsThere())
            GTEST_SKIP() << "runs inside of DeviceInfo.OfAUsbStick";
    }

    const test::UsbStick stick;
    const std::string &folder = stick.folder;
};

TEST_F(WithUsbStick, TheFolderHasItsNumbersAndTheSecondQueryIsServedFromTheCache)
{
    CapturedLog log(LOG_LEVEL_TRACE);
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo(folder + "/x/y"), "<vidpid>078155AB");
    EXPECT_TRUE(Logged("Device Instancd Id is USB\\VID_0781&PID_55AB\\4C530001"));
    EXPECT_TRUE(Logged("Found matched device: /dev/block/230:16"));
    EXPECT_TRUE(Logged("Rechieved vid = 0781, pid = 55AB"));
    EXPECT_FALSE(Logged("from cache"));
    const size_t before = CapturedLog::Lines().size();
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo(folder), "<vidpid>078155AB");
    EXPECT_EQ(CapturedLog::Lines().size(), before + 2);
    EXPECT_TRUE(Logged("Get vid/pid <0781, 55AB> from cache."));

    const ScratchFolder scratch;
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo(scratch.Path()), "");
    std::filesystem::create_symlink(folder, scratch / "link");
    EXPECT_EQ(FodrDeviceUtils::GetDeviceInfo(FodrClientUtils::GetLinkPath(scratch / "LINK")),
              "<vidpid>078155AB");
}

TEST_F(WithUsbStick, DevicesAreToldApart)
{
    const struct {
        const char16_t *path;
        bool isUsb;
        std::tuple<uint32_t, uint32_t, uint32_t> number; // type, device, partition
    } rows[] = {
        {u"/dev/block/230:0#3", false, {platform::kDeviceTypeDisk, 230 << 20, 0}},
        {u"/dev/block/230:16#9", true, {platform::kDeviceTypeDisk, 230 << 20 | 16, 0}},
        // Mapped onto the stick's partition.
        {u"/dev/block/231:0", true, {platform::kDeviceTypeDisk, 230 << 20 | 16, 1}},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(FodrDeviceUtils::IsUsbDevice(row.path), row.isUsb);
        platform::StorageDeviceNumber number{};
        EXPECT_TRUE(FodrDeviceUtils::GetStorageDeviceNumber(row.path, number));
        EXPECT_EQ(std::tie(number.DeviceType, number.DeviceNumber, number.PartitionNumber), row.number);
    }
    CapturedLog log(LOG_LEVEL_TRACE);
    EXPECT_FALSE(FodrDeviceUtils::IsUsbDevice(u"/dev/block/230:16#8")); // the stick that was there before
    EXPECT_TRUE(Logged("Opening target device failed with error: 2."));
    uint32_t instance = 0;
    EXPECT_FALSE(FodrDeviceUtils::GetDeviceInstance({3, 230 << 20, 0}, instance));
    EXPECT_FALSE(FodrDeviceUtils::GetDeviceInstance({platform::kDeviceTypeCdRom, 230 << 20, 0}, instance));
    ASSERT_TRUE(FodrDeviceUtils::GetDeviceInstance({platform::kDeviceTypeDisk, 230 << 20, 0}, instance));
    std::string id;
    EXPECT_FALSE(FodrDeviceUtils::GetDeviceInstanceId(instance, id));
    EXPECT_TRUE(Logged("Failed to get parent instance."));
}

TEST_F(WithUsbStick, ItHasTheNextLetterAndKeepsIt)
{
    const EnvironmentVariable variable("FODR_DRIVES", nullptr);
    EXPECT_EQ(platform::LocalPathOfDriveLetter('D'), folder);
    EXPECT_EQ(platform::LocalPathOfDriveLetter('E'), "");
    EXPECT_EQ(platform::DriveTypeOfLetter('D'), platform::kDriveRemovable);
    RecordingSubscriber letters;
    DriveWatcherImpl watcher;
    ASSERT_TRUE(watcher.Start(&letters));
    ASSERT_EQ(umount2(folder.c_str(), 0), 0);
    EXPECT_EQ(letters.Next(1), "-D");
    EXPECT_EQ(platform::LocalPathOfDriveLetter('D'), ""); // the folder is still there
    EXPECT_EQ(platform::DriveTypeOfLetter('D'), platform::kDriveNoRootDir);
    ASSERT_TRUE(stick.Mount(folder));
    EXPECT_EQ(letters.Next(1), "+D");
    const ScratchFolder scratch;
    const std::string second = scratch.MakeFolder("second");
    ASSERT_EQ(umount2(folder.c_str(), 0), 0);
    EXPECT_EQ(letters.Next(1), "-D");
    ASSERT_TRUE(stick.Mount(second));
    EXPECT_EQ(letters.Next(1), "+E"); // another place
    ASSERT_TRUE(stick.Mount(folder)); // each place has had its letter
    EXPECT_EQ(letters.Next(1), "+D");
    umount2(second.c_str(), 0);
    EXPECT_EQ(letters.Next(1), "-E");
    EXPECT_TRUE(watcher.Stop());
    EXPECT_EQ(platform::LocalPathOfDriveLetter('D'), folder);
}

} // namespace
} // namespace fodr
