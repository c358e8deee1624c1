#include "ManagerFixture.h"
#include "platform/Process.h"

#include <algorithm>

namespace fodr::test {
namespace {

using Handshake = ManagerTest;

const Strings kEnabled{"|RDPDR_CAPABILITY_STATUS,ENABLED"};
const Strings kForced{"|RDPDR_CAPABILITY_STATUS,FORCED"};
const Strings kDisabled{"|RDPDR_CAPABILITY_STATUS,DISABLED"};

TEST_F(Handshake, AnswersAnnounceAndCapabilityWithTheFixedPackets)
{
    EXPECT_EQ(Answers(ServerAnnounce(0xA1B2C3D4)),
              (std::vector<Bytes>{{0x72, 0x44, 0x43, 0x43, 1, 0, 12, 0, 0xD4, 0xC3, 0xB2, 0xA1},
                                  {0xFE, 0xFF, 1, 0, 6, 0, 0x0C, 0}}));
    const std::u16string name = platform::ComputerName() + u'\0';
    const auto length = static_cast<uint32_t>(2 * name.size());
    EXPECT_EQ(
        Answers(PacketOf(DR_CORE_CAPABILITY_REQ{})),
        (std::vector<Bytes>{PacketOf(DR_CORE_CAPABILITY_RSP{}),
                            PacketOf(DR_CORE_CLIENT_NAME_REQ{.ComputerNameLen = length}, Utf16(name))}));
}

TEST_F(Handshake, SharesAppearWhenTheLastOfThreePacketsIsThereInWhateverOrder)
{
    std::vector<std::pair<int, Bytes>> packets{{0, VersionExchange(5)}, {1, {}}, {2, UserLoggedOn()}};
    packets[1].second = PolicyPacket(Policy{.folders = {{2, Folder("docs")}}}.Block(5));
    do {
        SCOPED_TRACE(std::to_string(packets[0].first) + std::to_string(packets[1].first));
        auto fresh = Fresh();
        for (size_t i = 0; i < packets.size(); ++i) {
            EXPECT_TRUE(FeedTo(*fresh, packets[i].second));
            const bool last = i + 1 == packets.size();
            EXPECT_EQ(channel.TakeNotices(), last ? kEnabled : Strings{});
            EXPECT_EQ(TakeShares(), last ? Strings{"65535 docs (2)"} : Strings{});
        }
    } while (std::next_permutation(packets.begin(), packets.end()));
}

TEST_F(Handshake, StatusTellsVersionAndPolicy)
{
    const Policy disabled{.enabled = false}, free, forced{.sharedByAgent = true},
        disabledForced{.enabled = false, .sharedByAgent = true};
    const struct {
        uint16_t version;
        const Policy *policy;
        Strings statuses;
    } cases[] = {
        {5, &free, kEnabled},
        {5, &forced, kForced},
        {5, &disabled, kDisabled},
        {1, nullptr, kEnabled},
        {1, &disabledForced, kForced},
        {1, &disabled, kEnabled},
        {6, nullptr, {}},
        {0, &free, {}},
        {0, nullptr, {}},
        {4, &disabledForced, kDisabled},
    };
    for (const auto &c : cases) {
        auto fresh = Fresh({VersionExchange(c.version)});
        if (c.policy)
            FeedTo(*fresh, PolicyPacket(c.policy->Block(c.version)));
        FeedTo(*fresh, UserLoggedOn());
        EXPECT_EQ(channel.TakeNotices(), c.statuses) << c.version;
    }
    Fresh({UserLoggedOn(), VersionExchange(1)});
    EXPECT_EQ(channel.TakeNotices(), kEnabled);
}

TEST_F(Handshake, EveryPolicyAfterLogonIsActedOnButNothingIsAnnouncedTwice)
{
    LogOn(5, {.folders = {{0, Folder("a")}}});
    CapturedLog log(LOG_LEVEL_WARN);
    Feed(PolicyPacket(Policy{.folders = {{0, Folder("a")}, {0, Folder("b")}}}.Block(5)));
    EXPECT_EQ(Logged("W Policy already existed, overwriten it!"), 1u);
    EXPECT_EQ(TakeShares(), Strings{"65536 b (5)"});
}

TEST_F(Handshake, AnAgentOfVersionZeroDoesNotLoseThePolicyItSentBefore)
{
    Feed(UserLoggedOn());
    Feed(PolicyPacket(Policy{.folders = {{0, Folder("a")}}}.Block(5)));
    Feed(VersionExchange(0)); // parses the stored packet, and has to store it again
    EXPECT_EQ(TakeShares(), Strings{});
    channel.TakeNotices();
    Feed(VersionExchange(5));
    EXPECT_EQ(TakeShares(), Strings{"65535 a (5)"});
    EXPECT_EQ(channel.TakeNotices(), kEnabled);
    Feed(VersionExchange(5)); // and keeps it no longer than that
    EXPECT_EQ(channel.TakeNotices(), (Strings{"|FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED", kEnabled[0]}));
}

TEST_F(Handshake, APolicyLengthMayOverstateButNotUnderstateTheData)
{
    const Bytes block = Policy{.folders = {{0, Folder("a")}}}.Block(5);
    const auto size = static_cast<uint32_t>(block.size());
    const std::pair<uint32_t, bool> cases[] = {{size, true},       {size - 1, false}, {size + 1, true},
                                               {0xFFFFFFFF, true}, {7, false},        {0, false}};
    for (const auto &[length, taken] : cases) {
        auto fresh = Fresh({UserLoggedOn(), VersionExchange(5), PolicyPacket(block, length)});
        EXPECT_EQ(TakeShares(), taken ? Strings{"65535 a (5)"} : Strings{}) << length;
    }
    CapturedLog log(LOG_LEVEL_ERROR);
    Feed(PolicyPacket({1, 2, 3}, 7)); // below the header, though not below the rest
    EXPECT_EQ(Logged("E Invalid policy length 7 remain 3.\n"), 1u);
}

TEST_F(Handshake, CapabilitiesCountFromTheirVersionOn)
{
    const struct {
        uint16_t version, capabilities;
        const char *line;
        size_t lines;
    } cases[] = {
        {3, 0x02, "I The client pre-read status: disabled", 1},
        {4, 0x02, "I The client pre-read status: enabled", 1},
        {3, 0x00, "I The client pre-read status: enabled", 1}, // kept from before
        {4, 0x00, "I The client pre-read status: disabled", 1},
        {2, 0x02, "I The client pre-read status: disabled", 0},
        {2, 0x08, "I Drive letter mapping is enabled\n", 1},
        {2, 0x07, "I Drive letter mapping is disabled\n", 1},
        {2, 0x1207, "I The server caps = 0x7.\n", 1}, // the low byte alone
    };
    for (const auto &c : cases) {
        CapturedLog log(LOG_LEVEL_INFO);
        Feed(VersionExchange(c.version, c.capabilities));
        EXPECT_EQ(Logged(c.line), c.lines) << c.version << " " << c.line;
    }
}

TEST_F(Handshake, OnlyComponentsOfOursAreTaken)
{
    LogOn(6);
    const std::pair<uint16_t, bool> cases[] = {
        {RDPDR_CTYP_CORE, true}, {RDPDR_CTYP_PRIVATE, true}, {RDPDR_CTYP_PRN, false}, {0, false}};
    for (const auto &[component, taken] : cases) {
        EXPECT_EQ(Feed(RecordOf(RDPDR_HEADER{component, PAKID_CORE_USER_LOGGEDON})), taken) << component;
        // The private component goes on to the core packets.
        EXPECT_EQ(channel.TakeNotices(), taken ? kEnabled : Strings{}) << component;
    }
}

TEST_F(Handshake, ADeviceReplyIsTheStatusOfTheCommandThatAddedTheShare)
{
    LogOn(6);
    Add(Folder("a"), "", 0, "cookie 1");
    Add(Folder("b"), "", 0, "cookie 2");
    const Bytes success = DeviceReply(65535, 0);
    const struct {
        Bytes reply;
        Strings notices;
        const char *line; // null: any
    } cases[] = {
        {success, {"cookie 1|FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED"}, nullptr},
        {DeviceReply(65536, 0xC0000001),
         {"cookie 2|FOLDER_REDIRECTION_CMD_STATUS,Failed with code 0xc0000001"},
         nullptr},
        {DeviceReply(65536, 0xC0000001), {}, "E could find drive for deviceId 65536.\n"}, // it is gone
        // Cut, it tells nobody of a success.
        {Cut(success, 4), {}, "W Set the stream position error.\n"},
        {Cut(success, 7), {}, "W Read device ID error.\n"},
        {Cut(success, 11), {}, "W Read result code error.\n"},
    };
    for (const auto &c : cases) {
        CapturedLog log(LOG_LEVEL_WARN);
        Feed(c.reply);
        EXPECT_EQ(channel.TakeNotices(), c.notices) << c.reply.size();
        EXPECT_TRUE(!c.line || Logged(c.line) == 1) << c.line;
    }
    TakeShares();
    EXPECT_EQ(Add(Folder("b")), Strings{});
    EXPECT_EQ(TakeShares(), Strings{"65537 b (5)"}); // under a new number
}

TEST_F(Handshake, ARequestForAnUnknownDeviceIsAnsweredHere)
{
    LogOn(6);
    const Bytes read = PacketOf(DR_DEVICE_IOREQUEST{65535, 0, 7, IRP_MJ_READ, 0, {}});
    EXPECT_EQ(Answers(read), (std::vector<Bytes>{{0x72, 0x44, 0x43, 0x49, 0xFF, 0xFF, 0, 0, 7, 0, 0,
                                                  0,    0xB6, 0x02, 0,    0xC0, 0,    0, 0, 0, 0}}));
    EXPECT_TRUE(Answers({0x72, 0x44, 0x52, 0x49}).empty());          // nothing behind the header
    EXPECT_EQ(Answers({0x72, 0x44, 0x52, 0x49, 9}).at(0).at(4), 9u); // the rest reads as zeros
    Add(Folder("a"));
    EXPECT_EQ(StatusOf(Answers(OpenRoot(65535)).at(0)), 0u);
    // The permission of the announce is no part of the number.
    EXPECT_EQ(StatusOf(Answers(OpenRoot(0x0500FFFF)).at(0)), 0xC00002B6u);
}

// Each of these looks at all folders of the policy.
TEST_F(Handshake, AtTheEndQueuedHandshakePacketsAreDropped)
{
    Policy policy;
    for (size_t n = 0; n < ClientPolicy::kMostFolders; ++n)
        policy.folders.push_back({0, root + platform::LocalSeparator() + "missing" + std::to_string(n)});
    constexpr size_t kPackets = 1000;
    Feed(VersionExchange(6));
    Feed(PolicyPacket(policy.Block(6)));
    Receive(std::vector<Bytes>(kPackets, UserLoggedOn()));
    manager.Shutdown();
    // Of the packets that were served before the end there is a notice for each folder.
    EXPECT_LT(channel.TakeNotices().size(), kPackets / 2 * policy.folders.size());
}

TEST_F(Handshake, PacketsOnThePoolLeadToTheSameShares)
{
    Receive({VersionExchange(5), PolicyPacket(Policy{.folders = {{0, Folder("docs")}}}.Block(5)),
             UserLoggedOn(), ServerAnnounce(1), PacketOf(DR_CORE_CAPABILITY_REQ{})});
    EXPECT_EQ(TakeShares(5), Strings{"65535 docs (5)"});

    // A share that was made stays usable to the end; after it nothing is taken any more.
    manager.Shutdown();
    RdpdrStreamPtr late(RdpdrStream::Create(4));
    EXPECT_FALSE(manager.OnDataReceived(late.get()));
    EXPECT_FALSE(manager.AddSharedFolder(Folder("late"), "c", false, 0, ""));
    EXPECT_TRUE(channel.TakePackets().empty());
}

} // namespace
} // namespace fodr::test
