// The agent's device rules, from its policy packet to what is shared and opened.
#include "RealMount.h"
#include "UsbStick.h"
#include "rdpdr/ManagerFixture.h"

#include <fstream>

namespace fodr::test {
namespace {

TEST(DeviceFilter, JudgesSharesOpensAndDrives)
{
    FODR_NEEDS_MOUNTS();
    RunWithUsbStick("FilteredStick.*", 5);
}

const Policy kExcluded{.exclude = "vid-ffff_pid-ffff;vid-0781_pid-55**"};
const Policy kOthersIncluded{.include = "vid-0781_pid-0000"};
const Policy kIncluded{.exclude = "vid-0781_pid-0000", .include = "vid-****_pid-55ab"};
constexpr uint32_t kFile = nt::FILE_NON_DIRECTORY_FILE, kFolder = nt::FILE_DIRECTORY_FILE;

class FilteredStick : public ManagerTest {
protected:
    void SetUp() override
    {
        if (!stick.IsThere())
            GTEST_SKIP() << "runs inside of DeviceFilter.JudgesSharesOpensAndDrives";
        std::filesystem::create_directories(stick.folder + "/sub");
        std::ofstream(stick.folder + "/f") << "x";
        settings.SetNumber("linksOutside", 1); // else links lead to no other volume anyway
    }
    // A share beside the stick, with links to it.
    std::string LinkingFolder()
    {
        const std::string folder = Folder("links");
        std::ofstream(folder + "/own") << "x";
        std::filesystem::create_directory_symlink(stick.folder, folder + "/Link");
        std::filesystem::create_symlink("Link/f", folder + "/file");
        std::filesystem::create_directory(folder + "/LINK2");
        std::filesystem::create_directory_symlink("Link/sub", folder + "/Link2");
        return folder;
    }
    uint32_t Opened(const std::u16string &path, uint32_t options, uint32_t disposition = nt::FILE_OPEN)
    {
        return StatusOf(Answers(Open(65535, path, disposition, options)).at(0));
    }

    const UsbStick stick;
};

TEST_F(FilteredStick, AShareOfItIsRefusedUnlessTheRulesLetItThrough)
{
    const struct {
        Policy policy;
        bool isAllowed;
    } rows[] = {{kExcluded, false}, {kOthersIncluded, false}, {kIncluded, true}, {{}, true}};
    for (const auto &row : rows) {
        auto fresh = Fresh({VersionExchange(5), PolicyPacket(row.policy.Block(5)), UserLoggedOn()});
        for (const std::string &path : {stick.folder, stick.folder + "/sub", stick.folder + "/sub::$DATA"}) {
            const Strings refused{"Redirecting " + path + " is not allowed from Agent"};
            EXPECT_EQ(AddTo(*fresh, path, "", 0, "c"), row.isAllowed ? Strings{} : refused);
        }
        EXPECT_EQ(AddTo(*fresh, Folder("beside"), "", 0, "c"), Strings{}); // on no USB device
        fresh->Shutdown();
    }
}

TEST_F(FilteredStick, NoNameOfAnotherShareLeadsToIt)
{
    LogOn(5, kExcluded);
    ASSERT_EQ(Add(LinkingFolder()), Strings{});
    const struct {
        const char16_t *path;
        uint32_t options;
        bool leadsThere = true;
        uint32_t disposition = nt::FILE_OPEN;
    } rows[] = {
        {u"\\own", kFile, false},
        {u"\\own::$DATA", kFile, false},
        {u"\\", kFolder, false},
        {u"\\Link", kFolder},
        {u"\\Link::$DATA\\", kFolder},
        {u"\\Link\\f", kFile},
        {u"\\Link\\f::$DATA", kFile},
        {u"\\LINK\\F::$data", kFile},
        {u"/link/sub", kFolder},
        {u"\\file", kFile},
        {u"\\FILE::$DATA", kFile},
        {u"\\Link2", kFolder},
        {u"\\LINK2", kFolder, false},
        {u"\\link2", kFolder, false}, // of the two the one that sorts first
        {u"\\Link\\new", kFile, true, nt::FILE_CREATE},
        {u"\\Link\\new::$DATA", kFile, true, nt::FILE_OPEN_IF},
    };
    for (const auto &row : rows) {
        const nt::NTSTATUS status = row.leadsThere ? nt::STATUS_ACCESS_DENIED : nt::STATUS_SUCCESS;
        EXPECT_EQ(Opened(row.path, row.options, row.disposition), static_cast<uint32_t>(status))
            << std::string(row.path, row.path + std::char_traits<char16_t>::length(row.path));
    }
    EXPECT_FALSE(std::filesystem::exists(stick.folder + "/new"));
    EXPECT_EQ(Opened(u"\\Link\\f::$DATA", 0), 0u); // neither file nor folder: not judged
}

TEST_F(FilteredStick, WhatTheRulesIncludeOpensThroughALink)
{
    LogOn(5, kIncluded);
    ASSERT_EQ(Add(LinkingFolder()), Strings{});
    EXPECT_EQ(Opened(u"\\Link\\f", kFile), 0u);
    EXPECT_EQ(Opened(u"\\file::$DATA", kFile), 0u);
    EXPECT_EQ(Opened(u"\\", kFolder), 0u);
}

TEST_F(FilteredStick, IsOutOfReachOfLinksWhateverTheRulesSay)
{
    settings.SetNumber("linksOutside", 0);
    LogOn(5, kIncluded);
    ASSERT_EQ(Add(LinkingFolder()), Strings{});
    for (const char16_t *path : {u"\\Link\\f", u"\\Link\\f::$DATA", u"\\LINK\\none", u"\\file"}) {
        for (const uint32_t options : {kFile, 0u})
            EXPECT_EQ(Opened(path, options), static_cast<uint32_t>(nt::STATUS_ACCESS_DENIED));
    }
    EXPECT_EQ(Opened(u"\\own", kFile), 0u);
}

TEST_F(FilteredStick, ItsDriveComesOnlyWhenTheRulesLetItThrough)
{
    UseDrives("S=" + stick.folder);
    ASSERT_EQ(platform::LocalPathOfDriveLetter('S'), stick.folder);
    for (const Policy &policy : {kExcluded, kIncluded}) {
        ASSERT_EQ(umount2(stick.folder.c_str(), 0), 0);
        auto fresh = Fresh({VersionExchange(5), PolicyPacket(policy.Block(5)), UserLoggedOn()});
        channel.TakePackets();
        EXPECT_EQ(AddTo(*fresh, "S:\\", "", 0, "c"), Strings{});
        EXPECT_EQ(TakeShares(), Strings{}); // the folder below isn't the drive
        CapturedLog log(LOG_LEVEL_TRACE);
        ASSERT_TRUE(stick.Mount(stick.folder));
        if (policy.include.empty()) {
            EXPECT_TRUE(fresh->OnDeviceAvailable('S')); // in place of the watcher, or once more
            EXPECT_GE(Logged("T Drive S is denied by device filter policy."), 1u);
            EXPECT_EQ(TakeShares(), Strings{});
        } else {
            EXPECT_EQ(TakeShares(1), Strings{"65535 S (5)"});
        }
        fresh->Shutdown();
    }
}

} // namespace
} // namespace fodr::test
