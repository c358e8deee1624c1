#include "ManagerFixture.h"

#include <fstream>

namespace fodr::test {
namespace {

using ShareTable = ManagerTest;

// With drives and paths of the test's choice.
class LocalShares : public ManagerTest {
protected:
    void SetUp() override
    {
        if (platform::LocalSeparator() != '/')
            GTEST_SKIP() << "drive letters and paths are the system's own";
    }
};

TEST_F(LocalShares, EveryRefusalIsAStatusText)
{
    const Policy free, disabled{.enabled = false},
        forced{.sharedByAgent = true, .folders = {{0, Folder("ok")}}};
    const std::string a = Folder("a"), missing = root + "/missing", file = root + "/file";
    std::ofstream(file) << "x";
    const std::string refused = "Redirecting " + a + " is not allowed from Agent";
    const std::string noPolicy = "Policy is not received from Agent";
    const std::string noFolder = "Folder not exist or invalid parameter or configuration";
    const struct {
        uint16_t version;
        const Policy *policy;
        std::string path, shareName, cookie;
        Strings statuses;
        bool announced;
    } cases[] = {
        {5, &free, "", "", "c", {"Invalid share path"}, false},
        {2, nullptr, a, "", "c", {noPolicy}, false},
        {6, nullptr, a, "(OVFR)", "c", {noPolicy}, false},
        {0, nullptr, a, "", "c", {refused}, false},
        {1, nullptr, a, "", "c", {}, true}, // knows no policy
        {5, &disabled, a, "", "c", {refused}, false},
        {5, &forced, a, "", "c", {refused}, false},
        {5, &forced, a, "(OVFR)a", "c", {refused}, false},
        {6, &forced, a, "(OVFR)a", "c", {}, true}, // tagged: no policy from version 6 on
        {6, &disabled, a, "(OVFR)a", "c", {}, true},
        {6, &forced, a, "(ovfr)a", "c", {refused}, false},
        {5, &forced, root + "/ok/x", "", "c", {}, false}, // allowed, though not there
        {5, &free, a, "", "c", {}, true},
        {5, &free, a, "", "", {}, true},
        {5, &free, missing, "", "c", {}, false},
        {5, &free, missing, "", "", {noFolder}, false},
        {5, &free, file, "", "", {noFolder}, false},
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
        EXPECT_EQ(TakeShares().size(), c.announced ? 1u : 0u);
    }
}

TEST_F(LocalShares, FoldersAreSharedOnceATypeUnderNamesAndNumbersOfTheirOwn)
{
    LogOn(6);
    const struct {
        std::string path, shareName;
        Strings statuses, shares;
    } cases[] = {
        {"1/docs", "", {}, {"65535 docs (5)"}},
        {"1/docs/", "", {"SUCCEEDED"}, {}},
        {"1/docs", "other name", {"SUCCEEDED"}, {}},
        {"1/docs", "(OVFR)a", {}, {"65536 (OVFR)a (5)"}},
        {"1/docs", "(OVFR)b", {"SUCCEEDED"}, {}},
        {"2/docs", "", {}, {"65537 docs(1) (5)"}},
        {"3/DOCS", "", {}, {"65538 DOCS(2) (5)"}}, // no two differ by case alone
        {"4", "\xC3\x84", {}, {"65539 \xC3\x84 (5)"}},
        {"5", "\xC3\xA4", {"Share name change to \xC3\xA4(1)"}, {"65540 \xC3\xA4(1) (5)"}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(Add(Folder(c.path), c.shareName), c.statuses) << c.path << c.shareName;
        EXPECT_EQ(TakeShares(), c.shares) << c.path << c.shareName;
    }
    manager.RemoveSharedFolder(root + "/1/docs", "", "c");
    EXPECT_EQ(Add(Folder("6"), "docs"), Strings{}); // the name is free again, the number isn't
    EXPECT_EQ(TakeShares(), (Strings{"-65535", "65541 docs (5)"}));
}

TEST_F(ShareTable, AnAnnounceCutsNamesByBytes)
{
    LogOn(6);
    for (size_t length : {6u, 7u, 8u, 248u, 249u, 250u}) {
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

TEST_F(LocalShares, WithDriveLetterMappingOnlyDrivesPassAndTheirPathFollowsTheAnnounce)
{
    UseDrives("D=" + Folder("d"));
    LogOn(6, {.permission = 2}, FODR_CAP_DRIVE_LETTER_MAPPING);
    EXPECT_EQ(Add("D:\\data").at(0), "Redirecting D:\\data is not allowed from Agent");
    EXPECT_EQ(Add(root).at(0), "Redirecting " + root + " is not allowed from Agent");
    EXPECT_EQ(Add("D:\\", "", 4), Strings{});
    EXPECT_EQ(Add("/", "(OVFR)t"), Strings{}); // tagged: passes
    using namespace std::string_literals;
    EXPECT_EQ(TakeShares(), (Strings{"65535 D (4)\1\4\0\0\0D:\\\0"s, "65536 (OVFR)t (2)\1\2\0\0\0/\0"s}));
}

TEST_F(LocalShares, RemovalTakesWhatACommandAddedAndNothingElse)
{
    const std::string a = Folder("a"), registered = Folder("registered");
    settings.SetList("SharedFolders", {registered});
    LogOn(6);
    Add(a, "named");
    Add(a, "(OVFR)a");
    Add(root + "/missing");
    EXPECT_EQ(TakeShares(), (Strings{"65536 named (5)", "65537 (OVFR)a (5)"}));
    const struct {
        std::string path, shareName;
        bool matched;
        Strings withdrawn;
    } cases[] = {
        {"", "named", false, {}},
        {registered, "", false, {}},    // not by a command
        {a, "(OVFR)a", false, {}},      // such shares stay
        {a, "(OVDND)named", false, {}}, // of another type and name
        {root + "/b", "named", false, {}},
        {root + "/missing", "", true, {}}, // never announced
        {a + "/", "any name", true, {"-65536"}},
        {a, "named", false, {}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(manager.RemoveSharedFolder(c.path, c.shareName, "c"), c.matched) << c.path << c.shareName;
        EXPECT_EQ(TakeShares(), c.withdrawn) << c.path << c.shareName;
    }
    EXPECT_EQ(channel.TakeNotices(), Strings{});
}

TEST_F(ShareTable, SharesFollowTheirDriveUnderTheirNumber)
{
    UseDrives("D=" + root + "/d"); // the folder isn't there yet
    LogOn(6);
    Add("D:\\one");
    Add("d");
    Add(Folder("other"));
    EXPECT_EQ(TakeShares(), Strings{"65537 other (5)"});
    const Strings both{"65535 one (5)", "65536 d (5)"};
    const struct {
        bool arrives;
        char drive;
        Strings shares;
    } events[] = {
        {true, 'd', both},
        {true, 'D', {}}, // a second arrival is no news
        {false, 'D', {"-65535", "-65536"}},
        {false, 'D', {}},
        {true, 'D', both},
        {true, '/', {}}, // what an absolute path begins with is no drive
        {false, 'd', {"-65535", "-65536"}},
    };
    for (const auto &event : events) {
        EXPECT_TRUE(event.arrives ? manager.OnDeviceAvailable(event.drive)
                                  : manager.OnDeviceUnavailable(event.drive));
        EXPECT_EQ(TakeShares(), event.shares) << event.arrives << event.drive;
    }
    EXPECT_EQ(StatusOf(Answers(OpenRoot(65535)).at(0)), 0xC00002B6u);
}

TEST_F(LocalShares, DrivesAndRegisteredFoldersAreSharedWhenSettingsAndPolicySaySo)
{
    UseDrives("D=" + Folder("d") + ";X=" + Folder("x"));
    const Strings drives{"65535 D (5)", "65536 X (5)"};
    const auto redirectAll = [](SettingsFixture &store) { store.SetNumber("RedirectAll", 1); };
    const struct {
        const char *what;
        void (*set)(SettingsFixture &store);
        Policy policy;
        Strings shares;
    } cases[] = {
        {"no key", [](auto &) {}, {}, drives},
        {"no value", [](auto &store) { store.CreateKey(); }, {}, {}},
        {"zero", [](auto &store) { store.SetNumber("RedirectAll", 0); }, {}, {}},
        {"text", [](auto &store) { store.SetText("RedirectAll", "1"); }, {}, {}},
        {"one", redirectAll, {}, drives},
        {"agent's", redirectAll, {.sharedByAgent = true}, {}},
        {"all of the agent",
         [](auto &store) { store.CreateKey(); },
         {.folders = {{3, "*all"}}},
         {"65535 D (3)", "65536 X (3)"}},
        {"disabled", [](auto &) {}, {.enabled = false, .folders = {{3, "*all"}}}, {}},
    };
    for (const auto &c : cases) {
        SettingsFixture store;
        c.set(store);
        auto fresh = Fresh({VersionExchange(6), PolicyPacket(c.policy.Block(6)), UserLoggedOn()});
        EXPECT_EQ(TakeShares(), c.shares) << c.what;
    }
    settings.SetList("SharedFolders", {Folder("registered"), root + "/no"});
    auto fresh = Fresh({VersionExchange(6), PolicyPacket(Policy{}.Block(6)), UserLoggedOn()});
    EXPECT_EQ(TakeShares(), Strings{"65535 registered (5)"});
}

TEST_F(LocalShares, AFolderThatTheMachineDoesNotAllowIsAsGoodAsMissing)
{
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
        CapturedLog log(LOG_LEVEL_WARN);
        channel.TakeNotices();
        EXPECT_EQ(fresh->AddSharedFolder(c.path, "c", false, 0, ""), c.announced); // whatever the cookie
        EXPECT_EQ(channel.TakeNotices(),
                  c.announced ? Strings{}
                              : Strings{"c|FOLDER_REDIRECTION_CMD_STATUS,Folder not exist or invalid "
                                        "parameter or configuration"});
        std::string warning = "W Folder " + c.path + " is outside of the folders that this machine allows.\n";
        EXPECT_EQ(Logged(warning), c.announced ? 0u : 1u);
        settings.SetList("AllowedFolders", {"/"}); // what was refused left no entry that could come to life
        fresh->OnDeviceAvailable(c.path[0]);
        EXPECT_EQ(TakeShares().size(), c.announced ? 1u : 0u);
    }
    LogOn(6, {.sharedByAgent = true, .folders = {{0, a}}}); // whoever asks
    EXPECT_EQ(TakeShares(), Strings{});
}

TEST_F(LocalShares, OfNamedFilesThoseAreShownThatTheMachineAllows)
{
    const std::string a = Folder("a");
    Folder("a/F");
    Folder("a/F2");
    for (const char *name : {"one", "two", "F/in", "F2/x"})
        std::ofstream(a + "/" + name) << name;
    const struct {
        Strings entries;
        bool announced;
        Strings opened;
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
        fresh->AddSharedFolder(a, "c", false, 0, "(OVFCP)a", {"one", "two", "F"});
        EXPECT_EQ(TakeShares(), c.announced ? Strings{"65535 (OVFCP)a (0)"} : Strings{});
        EXPECT_EQ(OpenedOf(*fresh, {"one", "two", "F\\in", "F2\\x", "two:Zone.Identifier"}), c.opened);
    }
}

TEST_F(LocalShares, AddingAShareOfNamedFilesAgainAddsToItsFiles)
{
    LogOn(6);
    UseDrives("D=" + Folder("a"));
    const Strings all{"one", "two", "three"}, share{"65535 (OVDND)a (5)"};
    for (const std::string &name : all)
        std::ofstream(root + "/a/" + name) << name;
    manager.AddSharedFolder("D:\\", "c", false, 0, "(OVDND)a", {"one"});
    EXPECT_EQ(TakeShares(), share);
    EXPECT_EQ(OpenedOf(manager, all), Strings{"one"});
    settings.SetList("AllowedFolders", {"D:\\\\two"});
    channel.TakeNotices();
    EXPECT_TRUE(manager.AddSharedFolder("D:\\", "c", false, 0, "(OVDND)b", {"two", "three", "one"}));
    EXPECT_EQ(channel.TakeNotices(), Strings{"c|FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED"});
    const Strings allowed{"one", "two"}; // the first one was allowed when it was named
    EXPECT_EQ(OpenedOf(manager, all), allowed);
    // The drive goes and returns, and with it the same files.
    manager.OnDeviceUnavailable('D');
    EXPECT_EQ(OpenedOf(manager, all), Strings{});
    manager.OnDeviceAvailable('D');
    EXPECT_EQ(TakeShares(), share);
    EXPECT_EQ(OpenedOf(manager, all), allowed);
    EXPECT_TRUE(manager.RemoveSharedFolder("D:\\", "(ovdnd)A", "c"));
}

TEST_F(LocalShares, TheRootOfAllIsAShareLikeAnyOther)
{
    LogOn(6);
    EXPECT_EQ(Add("/"), Strings{});
    EXPECT_EQ(TakeShares(), Strings{"65535 _ (5)"});
    EXPECT_EQ(StatusOf(Answers(OpenRoot(65535)).at(0)), 0u);
    // A file below it: the request's path is appended as it is.
    std::ofstream(root + "/file") << "x";
    const Strings file{root.substr(1) + "\\file"};
    EXPECT_EQ(OpenedOf(manager, file), file);
    EXPECT_TRUE(manager.RemoveSharedFolder("/", "", "c"));
}

// A policy as large as a frame, of folders that are all named alike, and again with others.
TEST_F(LocalShares, AnAgentsPolicyFillsNoMoreThanItsPartOfTheTable)
{
    const auto block = [&](const std::string &where, size_t count) {
        Policy policy;
        for (size_t n = 0; n < count; ++n)
            policy.folders.push_back(
                {5, Folder(where + std::to_string(n) + platform::LocalSeparator() + "same")});
        Bytes bytes = policy.Block(6);
        // Entries without a path up to 16 MiB.
        const size_t empty = (16 << 20) / 8;
        const uint32_t length = LoadLittle<uint32_t>(bytes.data() + 8) + static_cast<uint32_t>(8 * empty);
        StoreLittle(bytes.data() + 8, length);
        bytes.insert(bytes.end() - 4, 8 * empty, 0);
        return bytes;
    };
    LogOn(6);
    Feed(PolicyPacket(block("a", RdpdrChannelManager::kMostForPolicy - 1)));
    Feed(PolicyPacket(block("b", 10)));
    EXPECT_EQ(TakeShares().size(), RdpdrChannelManager::kMostForPolicy);
    // The user's own have room.
    for (size_t n = RdpdrChannelManager::kMostForPolicy; n < fodr::ShareTable::kMostShares; ++n)
        ASSERT_EQ(Add(Folder("own" + std::to_string(n))), Strings{}) << n;
    EXPECT_EQ(Add(Folder("one-more")), Strings{"Internal system error"});
}

TEST_F(ShareTable, ThePolicyMarksSharesReadOnly)
{
    for (uint8_t permission : {uint8_t{5}, uint8_t{1}}) {
        CapturedLog log(LOG_LEVEL_INFO);
        auto fresh = Fresh(
            {VersionExchange(6), PolicyPacket(Policy{.permission = permission}.Block(6)), UserLoggedOn()});
        EXPECT_EQ(Logged("I CDR is marked as read-only\n"), permission == 1 ? 1u : 0u);
        fresh->AddSharedFolder(Folder("a"), "c", false, 0, "");
        channel.TakePackets();
        FeedTo(*fresh, Open(65535, permission == 1 ? u"\\r" : u"\\w", nt::FILE_OPEN_IF, 0x40));
        EXPECT_EQ(StatusOf(channel.TakePackets().at(0)), permission == 1 ? 0xC0000022u : 0u);
    }
}

} // namespace
} // namespace fodr::test
