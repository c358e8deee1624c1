#include "ManagerFixture.h"

#include <fstream>

namespace fodr::test {
namespace {

class ShareTable : public ManagerTest {};

TEST_F(ShareTable, EveryRefusalIsAStatusText)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "the paths are those of another system";
    const Policy free, disabled{.enabled = false},
        forced{.sharedByAgent = true, .folders = {{0, Folder("ok")}}};
    const std::string a = Folder("a"), missing = root + "/missing";
    std::ofstream(root + "/file") << "x";
    const std::string refusedA = "Redirecting " + a + " is not allowed from Agent";
    const struct {
        uint16_t version;
        const Policy *policy;
        std::string path, shareName, cookie;
        Strings statuses;
        bool announced;
    } cases[] = {
        {5, &free, "", "", "c", {"Invalid share path"}, false},
        {2, nullptr, a, "", "c", {"Policy is not received from Agent"}, false},
        {6, nullptr, a, "(OVFR)", "c", {"Policy is not received from Agent"}, false},
        {0, nullptr, a, "", "c", {refusedA}, false},
        {1, nullptr, a, "", "c", {}, true}, // knows no policy
        {5, &disabled, a, "", "c", {refusedA}, false},
        {5, &forced, a, "", "c", {refusedA}, false},
        {5, &forced, a, "(OVFR)a", "c", {refusedA}, false},
        {6, &forced, a, "(OVFR)a", "c", {}, true}, // tagged: no policy from version 6 on
        {6, &disabled, a, "(OVFR)a", "c", {}, true},
        {6, &forced, a, "(ovfr)a", "c", {refusedA}, false},
        {5, &forced, root + "/ok/x", "", "c", {}, false}, // allowed, though not there
        {5, &free, a, "", "c", {}, true},
        {5, &free, a, "", "", {}, true},
        {5, &free, missing, "", "c", {}, false},
        {5, &free, missing, "", "", {"Folder not exist or invalid parameter or configuration"}, false},
        {5, &free, root + "/file", "", "", {"Folder not exist or invalid parameter or configuration"}, false},
        {1, nullptr, missing, "", "", {}, false}, // nobody to tell without a policy
        {5, &free, a, "x/y", "c", {"Share name change to x_y"}, true},
        {6, &forced, a, "(OVDND)a", "c", {}, true},
        {6, &free, missing, "(OVFCP)a", "c", {}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path + "|" + c.shareName + " version " + std::to_string(c.version));
        auto fresh = Fresh({VersionExchange(c.version)});
        if (c.policy)
            FeedTo(*fresh, PolicyPacket(c.policy->Block(c.version)));
        EXPECT_EQ(AddTo(*fresh, c.path, c.shareName, 0, c.cookie), c.statuses);
        EXPECT_EQ(TakeAnnounced().size(), c.announced ? 1u : 0u);
    }
}

TEST_F(ShareTable, AFolderIsSharedOnceForEachType)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "the paths are those of another system";
    LogOn(6);
    const std::string a = Folder("a");
    EXPECT_EQ(Add(a), Strings{});
    EXPECT_EQ(Add(a + "/"), Strings{"SUCCEEDED"});
    EXPECT_EQ(Add(a, "other name"), Strings{"SUCCEEDED"});
    EXPECT_EQ(Add(a, "(OVFR)a"), Strings{});
    EXPECT_EQ(Add(a, "(OVFR)b"), Strings{"SUCCEEDED"});
    EXPECT_EQ(TakeAnnouncedNames(), (Strings{"a", "(OVFR)a"}));
}

TEST_F(ShareTable, NamesAreUniqueWithoutCaseAndNumbersAreNeverUsedAgain)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "the paths are those of another system";
    LogOn(6);
    EXPECT_EQ(Add(Folder("1/docs")), Strings{});
    EXPECT_EQ(Add(Folder("2/docs")), Strings{});
    EXPECT_EQ(Add(Folder("3/DOCS")), Strings{});
    EXPECT_EQ(Add(Folder("4"), "\xC3\x84"), Strings{});
    EXPECT_EQ(Add(Folder("5"), "\xC3\xA4"), Strings{"Share name change to \xC3\xA4(1)"});
    manager.RemoveSharedFolder(root + "/1/docs", "", "c");
    EXPECT_EQ(Add(Folder("6"), "docs"), Strings{});
    EXPECT_EQ(TakeAnnounced(), (std::vector<Announced>{{65535, 5, "docs", {}},
                                                       {65536, 5, "docs(1)", {}},
                                                       {65537, 5, "DOCS(2)", {}},
                                                       {65538, 5, "\xC3\x84", {}},
                                                       {65539, 5, "\xC3\xA4(1)", {}},
                                                       {65540, 5, "docs", {}}}));
    EXPECT_EQ(removed, std::vector<uint32_t>{65535});
}

TEST_F(ShareTable, AnAnnounceCutsNamesByBytes)
{
    LogOn(6);
    for (size_t length : {6u, 7u, 8u, 248u, 249u, 250u}) {
        channel.TakePackets();
        std::string name(length, 'n');
        Add(Folder(std::to_string(length)), name);
        Bytes packet = channel.TakePackets().at(0);
        auto announce = LoadRecord<DEVICE_ANNOUNCE>(packet.data() + 8);
        EXPECT_EQ(announce.DeviceDataLength, std::min<size_t>(length, 249) + 1);
        EXPECT_EQ(packet.size(), 28 + announce.DeviceDataLength);
        std::string dosName(announce.PreferredDosName.begin(), announce.PreferredDosName.end());
        EXPECT_EQ(dosName, (name.substr(0, 7) + std::string(8, '\0')).substr(0, 8)) << length;
    }
}

TEST_F(ShareTable, WithDriveLetterMappingOnlyDrivesPassAndTheirPathFollowsTheAnnounce)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "the paths are those of another system";
    UseDrives("D=" + Folder("d"));
    LogOn(6, {.permission = 2}, FODR_CAP_DRIVE_LETTER_MAPPING);
    EXPECT_EQ(Add("D:\\data").at(0), "Redirecting D:\\data is not allowed from Agent");
    EXPECT_EQ(Add(root).at(0), "Redirecting " + root + " is not allowed from Agent");
    EXPECT_EQ(Add("D:\\", "", 4), Strings{});
    EXPECT_EQ(Add(Folder("t"), "(OVFR)t"), Strings{}); // tagged: passes
    std::vector<Announced> shares = TakeAnnounced();
    ASSERT_EQ(shares.size(), 2u);
    EXPECT_EQ(shares[0], (Announced{65535, 4, "D", {1, 4, 0, 0, 0, 'D', ':', '\\', 0}}));
    EXPECT_EQ(shares[1].permission, 2u);
    EXPECT_EQ(shares[1].extension.size(), root.size() + 2 + 6);
}

TEST_F(ShareTable, RemovalTakesWhatACommandAddedAndNothingElse)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "the paths are those of another system";
    const std::string a = Folder("a"), registered = Folder("registered");
    settings.SetList("SharedFolders", {registered});
    LogOn(6);
    Add(a, "named");
    Add(a, "(OVFR)a");
    Add(root + "/missing");
    EXPECT_EQ(TakeAnnouncedNames(), (Strings{"named", "(OVFR)a"}));
    const struct {
        std::string path, shareName;
        bool matched;
        std::vector<uint32_t> withdrawn;
    } cases[] = {
        {"", "named", false, {}},
        {registered, "", false, {}},    // not by a command
        {a, "(OVFR)a", false, {}},      // such shares stay
        {a, "(OVDND)named", false, {}}, // of another type and name
        {root + "/b", "named", false, {}},
        {root + "/missing", "", true, {}}, // never announced
        {a + "/", "any name", true, {65536}},
        {a, "named", false, {}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(manager.RemoveSharedFolder(c.path, c.shareName, "c"), c.matched) << c.path << c.shareName;
        TakeAnnounced();
        EXPECT_EQ(removed, c.withdrawn) << c.path << c.shareName;
    }
    EXPECT_TRUE(channel.TakeNotices().empty());
}

TEST_F(ShareTable, SharesFollowTheirDriveUnderTheirNumber)
{
    UseDrives("D=" + root + "/d"); // the folder isn't there yet
    LogOn(6);
    Add("D:\\one");
    Add("d");
    Add(Folder("other"));
    EXPECT_EQ(TakeAnnouncedNames(), Strings{"other"});
    auto ids = [this] {
        std::vector<uint32_t> list;
        for (const Announced &share : TakeAnnounced())
            list.push_back(share.id);
        return list;
    };
    const std::vector<uint32_t> both{65535, 65536};
    EXPECT_TRUE(manager.OnDeviceAvailable('d'));
    EXPECT_EQ(ids(), both);
    EXPECT_TRUE(manager.OnDeviceAvailable('D')); // a second arrival is no news
    EXPECT_EQ(ids(), std::vector<uint32_t>{});
    EXPECT_TRUE(manager.OnDeviceUnavailable('D'));
    ids();
    EXPECT_EQ(removed, both);
    EXPECT_EQ(StatusOf(Answers(OpenRoot(65535, 1)).at(0)), 0xC00002B6u);
    manager.OnDeviceUnavailable('D');
    ids();
    EXPECT_TRUE(removed.empty());
    manager.OnDeviceAvailable('D');
    EXPECT_EQ(ids(), both);
    manager.OnDeviceAvailable('/'); // what an absolute path begins with is no drive
    EXPECT_EQ(ids(), std::vector<uint32_t>{});
}

TEST_F(ShareTable, DrivesAndRegisteredFoldersAreSharedWhenSettingsAndPolicySaySo)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "drive letters are the system's own";
    UseDrives("D=" + Folder("d") + ";X=" + Folder("x"));
    const std::string registered = Folder("registered");
    struct Case {
        const char *what;
        std::function<void(SettingsFixture &)> set;
        Policy policy;
        Strings names;
    } const cases[] = {
        {"no key", [](auto &) {}, {}, {"D", "X"}},
        {"no value", [](auto &s) { s.CreateKey(); }, {}, {}},
        {"zero", [](auto &s) { s.SetNumber("RedirectAll", 0); }, {}, {}},
        {"text", [](auto &s) { s.SetText("RedirectAll", "1"); }, {}, {}},
        {"one", [](auto &s) { s.SetNumber("RedirectAll", 1); }, {}, {"D", "X"}},
        {"list",
         [&](auto &s) {
             s.SetList("SharedFolders", {registered, root + "/no"});
         },
         {},
         {"registered"}},
        {"agent's", [](auto &s) { s.SetNumber("RedirectAll", 1); }, {.sharedByAgent = true}, {}},
        {"all of the agent", [](auto &s) { s.CreateKey(); }, {.folders = {{3, "*all"}}}, {"D", "X"}},
        {"disabled", [](auto &) {}, {.enabled = false, .folders = {{3, "*all"}}}, {}},
    };
    for (const Case &c : cases) {
        SettingsFixture own;
        c.set(own);
        auto fresh = Fresh({VersionExchange(6), PolicyPacket(c.policy.Block(6)), UserLoggedOn()});
        EXPECT_EQ(TakeAnnouncedNames(), c.names) << c.what;
    }
}

TEST_F(ShareTable, AFolderThatTheMachineDoesNotAllowIsAsGoodAsMissing)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "drive letters are the system's own";
    UseDrives("D=" + Folder("d"));
    const std::string a = Folder("a"), sub = Folder("a/sub"), ab = Folder("ab");
    const struct {
        Strings entries;
        std::string path;
        bool announced;
    } cases[] = {
        {{a}, a, true},
        {{a + "/"}, a, true},
        {{a}, a + "/", true},
        {{a}, sub, true},
        {{root + "/b", a}, sub, true},
        {{sub}, a, false},
        {{a}, ab, false},
        {{a}, sub + "/../../ab", false},
        {{a}, a + "/sub/..", false},
        {{a}, a + "\\..\\ab", false},
        {{root + "/A"}, a, false},
        {{"/"}, a, true},
        {{a}, "/", false},
        {{"/"}, "/", true},
        {{"D:"}, "d:\\", false}, // compared exactly
        {{"D:\\\\"}, "D", true}, // "D:\" as the store writes it
        {{a}, "D:\\", false},
        {{}, a, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        settings.SetList("AllowedFolders", c.entries);
        auto fresh = Fresh({VersionExchange(1)});
        LogCapture log;
        EXPECT_TRUE(fresh->AddSharedFolder(c.path, "c", false, 0, ""));
        std::string warning = "W Folder " + c.path + " is outside of the folders that this machine allows.\n";
        EXPECT_EQ(log.Count(warning), c.announced ? 0u : 1u);
        // Nor does the arrival of its drive change that.
        fresh->OnDeviceAvailable(c.path[0]);
        EXPECT_EQ(TakeAnnounced().size(), c.announced ? 1u : 0u);
    }
    LogOn(6, {.sharedByAgent = true, .folders = {{0, a}}}); // whoever asks
    EXPECT_EQ(TakeAnnouncedNames(), Strings{});
}

TEST_F(ShareTable, OfNamedFilesThoseAreShownThatTheMachineAllows)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "drive letters are the system's own";
    const std::string a = Folder("a");
    Folder("a/F");
    Folder("a/F2");
    for (const char *name : {"one", "two", "F/in", "F2/x"})
        std::ofstream(a + "/" + name) << name;
    const Strings kNames = {"one", "two", "F"};
    const struct {
        Strings entries;
        bool announced;
        Strings opened; // of "one", "two", "F\\in", "F2\\x", "two:Zone.Identifier"
    } cases[] = {
        {{a}, true, {"one", "two", "F\\in", "F2\\x"}},
        {{a + "/one"}, true, {"one"}},
        {{a + "/one", a + "/F/"}, true, {"one", "F\\in"}},
        {{a + "/tw", a + "/two/x", a + "/F2"}, false, {}},
        {{a + "/x/../two"}, false, {}},
        {{a + "/F/in"}, false, {}}, // the folder that was named isn't allowed
        {{}, false, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.entries.empty() ? "none" : c.entries[0]);
        settings.SetList("AllowedFolders", c.entries);
        auto fresh = Fresh({VersionExchange(1)});
        fresh->AddSharedFolder(a, "c", false, 0, "(OVFCP)a", kNames);
        EXPECT_EQ(TakeAnnouncedNames(), c.announced ? Strings{"(OVFCP)a"} : Strings{});
        Strings opened;
        for (const char *path : {"one", "two", "F\\in", "F2\\x", "two:Zone.Identifier"}) {
            FeedTo(*fresh, Open(65535, u"\\" + std::u16string(path, path + strlen(path)), nt::FILE_OPEN, 0));
            if (StatusOf(channel.TakePackets().at(0)) == 0)
                opened.push_back(path);
        }
        EXPECT_EQ(opened, c.opened);
    }
}

TEST_F(ShareTable, AddingAShareOfNamedFilesAgainAddsToItsFiles)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "drive letters are the system's own";
    LogOn(6);
    UseDrives("D=" + Folder("a"));
    for (const char *name : {"one", "two", "three"})
        std::ofstream(root + "/a/" + name) << name;
    auto isOpened = [this](const std::u16string &name) {
        return StatusOf(Answers(Open(65535, u"\\" + name, nt::FILE_OPEN, 0)).at(0)) == 0;
    };
    manager.AddSharedFolder("D:\\", "c", false, 0, "(OVDND)a", {"one"});
    EXPECT_EQ(TakeAnnouncedNames(), Strings{"(OVDND)a"});
    EXPECT_FALSE(isOpened(u"two"));
    settings.SetList("AllowedFolders", {"D:\\\\two"});
    channel.TakeNotices();
    EXPECT_TRUE(manager.AddSharedFolder("D:\\", "c", false, 0, "(OVDND)b", {"two", "three", "one"}));
    EXPECT_EQ(channel.TakeNotices(), (std::vector<Notice>{{"c", std::string(kStatus) + "SUCCEEDED"}}));
    EXPECT_TRUE(isOpened(u"one")); // was allowed when it was named
    EXPECT_TRUE(isOpened(u"two"));
    EXPECT_FALSE(isOpened(u"three"));
    // The drive goes and returns, and with it the same files.
    manager.OnDeviceUnavailable('D');
    EXPECT_FALSE(isOpened(u"one"));
    manager.OnDeviceAvailable('D');
    EXPECT_EQ(TakeAnnouncedNames(), Strings{"(OVDND)a"});
    EXPECT_TRUE(isOpened(u"two"));
    EXPECT_FALSE(isOpened(u"three"));
    EXPECT_TRUE(manager.RemoveSharedFolder("D:\\", "(ovdnd)A", "c"));
}

TEST_F(ShareTable, TheRootOfAllIsAShareLikeAnyOther)
{
    if (!kHasDriveTable)
        GTEST_SKIP() << "drive letters are the system's own";
    LogOn(6);
    EXPECT_EQ(Add("/"), Strings{});
    EXPECT_EQ(TakeAnnouncedNames(), Strings{"_"});
    EXPECT_EQ(StatusOf(Answers(OpenRoot(65535, 1)).at(0)), 0u);
    // A file below it: the request's path is appended as it is.
    std::ofstream(root + "/file") << "x";
    std::u16string path(root.begin(), root.end());
    EXPECT_EQ(StatusOf(Answers(Open(65535, u"\\" + path.substr(1) + u"\\file", nt::FILE_OPEN, 0x40)).at(0)),
              0u);
    EXPECT_TRUE(manager.RemoveSharedFolder("/", "", "c"));
}

TEST_F(ShareTable, ThePolicyMarksSharesReadOnly)
{
    for (uint8_t permission : {uint8_t{5}, uint8_t{1}}) {
        LogCapture log;
        auto fresh = Fresh(
            {VersionExchange(6), PolicyPacket(Policy{.permission = permission}.Block(6)), UserLoggedOn()});
        EXPECT_EQ(log.Count("I CDR is marked as read-only\n"), permission == 1 ? 1u : 0u);
        fresh->AddSharedFolder(Folder("a"), "c", false, 0, "");
        channel.TakePackets();
        FeedTo(*fresh, Open(65535, permission == 1 ? u"\\r" : u"\\w", nt::FILE_OPEN_IF, 0x40));
        EXPECT_EQ(StatusOf(channel.TakePackets().at(0)), permission == 1 ? 0xC0000022u : 0u);
    }
}

} // namespace
} // namespace fodr::test
