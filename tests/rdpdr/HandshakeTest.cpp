#include "ManagerFixture.h"
#include "platform/Process.h"

#include <algorithm>
#include <thread>

namespace fodr::test {
namespace {

class Handshake : public ManagerTest {
protected:
    // Lists of the capability statuses that were sent since the last look.
    Strings Statuses()
    {
        Strings list;
        for (const Notice &notice : channel.TakeNotices()) {
            if (notice.message.starts_with("RDPDR_CAPABILITY_STATUS,") && notice.cookie.empty())
                list.push_back(notice.message.substr(24));
        }
        return list;
    }
};

TEST_F(Handshake, AnswersAnnounceAndCapabilityWithTheFixedPackets)
{
    std::vector<Bytes> answers = Answers(ServerAnnounce(0xA1B2C3D4));
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[0], (Bytes{0x72, 0x44, 0x43, 0x43, 1, 0, 12, 0, 0xD4, 0xC3, 0xB2, 0xA1}));
    EXPECT_EQ(answers[1], (Bytes{0xFE, 0xFF, 1, 0, 6, 0, 0x0C, 0}));

    answers = Answers(ServerCapability());
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[0], PacketOf(DR_CORE_CAPABILITY_RSP{}));
    EXPECT_EQ(answers[0].size(), 84u);
    std::u16string name = platform::ComputerName();
    ASSERT_EQ(answers[1].size(), 2 * name.size() + 18);
    EXPECT_EQ(LoadLittle<uint32_t>(answers[1].data() + 4), 1u);
    EXPECT_EQ(LoadLittle<uint32_t>(answers[1].data() + 12), 2 * name.size() + 2);
    EXPECT_EQ(LoadLittle<uint16_t>(answers[1].data() + 16), name[0]);
}

TEST_F(Handshake, SharesAppearWhenTheLastOfThreePacketsIsThereInWhateverOrder)
{
    std::vector<std::pair<int, Bytes>> packets{{0, VersionExchange(5)}, {1, {}}, {2, UserLoggedOn()}};
    packets[1].second = PolicyPacket(Policy{.folders = {{2, Folder("docs")}}}.Block(5));
    do {
        auto fresh = Fresh();
        for (size_t i = 0; i < packets.size(); ++i) {
            EXPECT_TRUE(FeedTo(*fresh, packets[i].second));
            bool last = i + 1 == packets.size();
            EXPECT_EQ(Statuses(), last ? Strings{"ENABLED"} : Strings{})
                << packets[0].first << packets[i].first;
            EXPECT_EQ(TakeAnnounced(),
                      last ? (std::vector<Announced>{{65535, 2, "docs", {}}}) : std::vector<Announced>{});
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
        {5, &free, {"ENABLED"}},
        {5, &forced, {"FORCED"}},
        {5, &disabled, {"DISABLED"}},
        {1, nullptr, {"ENABLED"}},
        {1, &disabledForced, {"FORCED"}},
        {1, &disabled, {"ENABLED"}},
        {6, nullptr, {}},
        {0, &free, {}},
        {0, nullptr, {}},
        {4, &disabledForced, {"DISABLED"}},
    };
    for (const auto &c : cases) {
        auto fresh = Fresh({VersionExchange(c.version)});
        if (c.policy)
            FeedTo(*fresh, PolicyPacket(c.policy->Block(c.version)));
        FeedTo(*fresh, UserLoggedOn());
        EXPECT_EQ(Statuses(), c.statuses) << c.version;
    }
}

TEST_F(Handshake, EveryPolicyAfterLogonIsActedOnButNothingIsAnnouncedTwice)
{
    LogOn(5, {.folders = {{0, Folder("a")}}});
    LogCapture log;
    Feed(PolicyPacket(Policy{.folders = {{0, Folder("a")}, {0, Folder("b")}}}.Block(5)));
    EXPECT_EQ(log.Count("W Policy already existed, overwriten it!"), 1u);
    EXPECT_EQ(TakeAnnouncedNames(), Strings{"b"});
    EXPECT_EQ(Statuses(), Strings{"ENABLED"});
}

TEST_F(Handshake, AnAgentOfVersionZeroDoesNotLoseThePolicyItSentBefore)
{
    Feed(UserLoggedOn());
    Feed(PolicyPacket(Policy{.folders = {{0, Folder("a")}}}.Block(5)));
    Feed(VersionExchange(0)); // parses the stored packet, and has to store it again
    EXPECT_EQ(TakeAnnouncedNames(), Strings{});
    channel.TakeNotices();
    Feed(VersionExchange(5));
    EXPECT_EQ(TakeAnnouncedNames(), Strings{"a"});
    Feed(VersionExchange(5)); // and keeps it no longer than that
    EXPECT_EQ(Statuses(), (Strings{"ENABLED", "ENABLED"}));
}

TEST_F(Handshake, APolicyLengthMayOverstateButNotUnderstateTheData)
{
    Bytes block = Policy{.folders = {{0, Folder("a")}}}.Block(5);
    auto size = static_cast<uint32_t>(block.size());
    const struct {
        uint32_t length;
        bool taken;
    } cases[] = {{size, true},       {size - 1, false}, {size + 1, true},
                 {0xFFFFFFFF, true}, {7, false},        {0, false}};
    for (const auto &c : cases) {
        auto fresh = Fresh({UserLoggedOn(), VersionExchange(5), PolicyPacket(block, c.length)});
        EXPECT_EQ(TakeAnnouncedNames(), c.taken ? Strings{"a"} : Strings{}) << c.length;
    }
    LogCapture log;
    Feed(PolicyPacket({1, 2, 3}, 7)); // below the header, though not below the rest
    EXPECT_EQ(log.Count("E Invalid policy length 7 remain 3.\n"), 1u);
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
    LogCapture log;
    for (const auto &c : cases) {
        Feed(VersionExchange(c.version, c.capabilities));
        EXPECT_EQ(log.Count(c.line), c.lines) << c.version << " " << c.line;
    }
}

TEST_F(Handshake, OnlyComponentsOfOursAreTaken)
{
    LogOn(6);
    Bytes packet = UserLoggedOn();
    const struct {
        uint16_t component;
        bool taken;
    } cases[] = {{RDPDR_CTYP_CORE, true}, {RDPDR_CTYP_PRIVATE, true}, {RDPDR_CTYP_PRN, false}, {0, false}};
    for (const auto &c : cases) {
        StoreLittle(packet.data(), c.component);
        EXPECT_EQ(Feed(packet), c.taken) << c.component;
        // The private component goes on to the core packets.
        EXPECT_EQ(Statuses().size(), c.taken ? 1u : 0u) << c.component;
    }
}

TEST_F(Handshake, ADeviceReplyIsTheStatusOfTheCommandThatAddedTheShare)
{
    LogOn(6);
    Add(Folder("a"), "", 0, "cookie 1");
    Add(Folder("b"), "", 0, "cookie 2");
    Feed(DeviceReply(65535, 0));
    Feed(DeviceReply(65536, 0xC0000001));
    LogCapture log;
    Feed(DeviceReply(65536, 0xC0000001)); // it is gone
    EXPECT_EQ(log.Count("E could find drive for deviceId 65536.\n"), 1u);
    Feed({0x72, 0x44, 0x72, 0x64});
    EXPECT_EQ(log.Count("W Set the stream position error.\n"), 1u);
    const Bytes success = DeviceReply(65535, 0);
    auto feedCut = [&](long size) { Feed(Bytes(success.begin(), success.begin() + size)); };
    feedCut(7); // cut, it tells nobody of a success
    EXPECT_EQ(log.Count("W Read device ID error.\n"), 1u);
    feedCut(11);
    EXPECT_EQ(log.Count("W Read result code error.\n"), 1u);
    EXPECT_EQ(channel.TakeNotices(),
              (std::vector<Notice>{{"cookie 1", std::string(kStatus) + "SUCCEEDED"},
                                   {"cookie 2", std::string(kStatus) + "Failed with code 0xc0000001"}}));
    EXPECT_TRUE(TakeAnnouncedNames().size() == 2 && Add(Folder("b")).empty());
    EXPECT_EQ(TakeAnnounced(), (std::vector<Announced>{{65537, 5, "b", {}}})); // under a new number
}

TEST_F(Handshake, ARequestForAnUnknownDeviceIsAnsweredHere)
{
    LogOn(6);
    std::vector<Bytes> answers = Answers(IoRequest(65535, IRP_MJ_READ, 7));
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], (Bytes{0x72, 0x44, 0x43, 0x49, 0xFF, 0xFF, 0, 0, 7, 0, 0,
                                 0,    0xB6, 0x02, 0,    0xC0, 0,    0, 0, 0, 0}));
    EXPECT_TRUE(Answers({0x72, 0x44, 0x52, 0x49}).empty());          // nothing behind the header
    EXPECT_EQ(Answers({0x72, 0x44, 0x52, 0x49, 9}).at(0).at(4), 9u); // the rest reads as zeros
    Add(Folder("a"));
    EXPECT_EQ(StatusOf(Answers(OpenRoot(65535, 8)).at(0)), 0u);
    // The permission of the announce is no part of the number.
    EXPECT_EQ(StatusOf(Answers(OpenRoot(0x0500FFFF, 9)).at(0)), 0xC00002B6u);
}

TEST_F(Handshake, PacketsOnThePoolLeadToTheSameShares)
{
    Bytes packets[] = {VersionExchange(5), PolicyPacket(Policy{.folders = {{0, Folder("docs")}}}.Block(5)),
                       UserLoggedOn(), ServerAnnounce(1), ServerCapability()};
    for (const Bytes &packet : packets) {
        RdpdrStream *stream = RdpdrStream::Create(packet.size());
        stream->Write(packet.data(), packet.size());
        EXPECT_TRUE(manager.OnDataReceived(stream));
    }
    channel.AwaitPackets(5);
    EXPECT_EQ(TakeAnnouncedNames(), Strings{"docs"});

    // A share that was made stays usable to the end; after it nothing is taken any more.
    manager.Shutdown();
    RdpdrStream *late = RdpdrStream::Create(4);
    EXPECT_FALSE(manager.OnDataReceived(late));
    RdpdrStream::Free(&late);
    EXPECT_TRUE(channel.TakePackets().empty());
}

} // namespace
} // namespace fodr::test
