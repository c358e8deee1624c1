#include "host/HostChannel.h"

#include "host/TestAgent.h"

#include <future>
#include <gtest/gtest.h>

namespace fodr::test {
namespace {

using host::HostChannel;
using host::PluginHost;
using platform::ByteView;
using transport::SideOffer;

// What the plug-in and the channel's listener are told, in one order.
class Channel : public testing::Test, public host::IChannelListener {
protected:
    Channel()
    {
        std::string error;
        host = PluginHost::Create(FODR_TEST_PLUGIN, &error);
        EXPECT_TRUE(host) << error;
        host->Bus().Subscribe("TEST_EVENT", &events, [](void *lines, auto sender, auto cookie, auto data) {
            const std::string from = *cookie != '\0' ? std::string(sender) + "|" + cookie + "|" : "";
            static_cast<Lines *>(lines)->Add(from + data);
            return true;
        });
        options.sideChannelHost = "127.0.0.1";
    }
    // Not in the destructor: the last calls come to a listener that is still whole.
    void TearDown() override
    {
        agent.reset();
        channel.reset();
    }

    void OnNotice(transport::NoticeKind kind, const std::string &text) override
    {
        if (text == "hold")
            released.get_future().wait();
        events.Add("notice " + std::to_string(static_cast<int>(kind)) + " " + text);
    }
    void OnAgentGoodbye(const std::string &reason) override { events.Add("goodbye " + reason); }
    void OnSideChannelFailed(const std::string &reason) override { events.Add("side failed: " + reason); }
    void OnLost(const std::string &reason) override { events.Add("lost: " + reason); }

    void Attach(bool agentReads = true)
    {
        auto [ours, theirs] = platform::MakeStreamPair();
        if (!channel)
            channel = std::make_unique<HostChannel>(host.get(), options, this);
        channel->Attach(std::move(ours));
        agent = std::make_unique<TestAgent>(std::move(theirs), agentReads);
        if (agentReads) {
            EXPECT_EQ(agent->heard.Next(), "hello 1 1 0 0 " + options.token);
        }
    }
    // A connection with both objects, for a new instance or the one that there is. The plug-in asks for the
    // side channel.
    void BringUp(bool newInstance = true, uint32_t sideChannel = 0, bool agentReads = true)
    {
        Attach(agentReads);
        agent->Greet();
        if (newInstance) {
            EXPECT_EQ(events.Next(), "created");
        }
        EXPECT_EQ(events.Take(3), "connection 2 2\nconnecting\nchannel 2 2 session 0\n");
        agent->AnnounceObjects(sideChannel);
        EXPECT_EQ(events.Take(4), "peer testControlObj\ncontrol 2\npeer testDataObj\ndata 2\n");
        if (agentReads) {
            EXPECT_EQ(agent->heard.Take(2),
                      std::string("state 1 2\nstate 2 ") + (sideChannel ? "3\n" : "2\n"));
        }
    }
    bool Order(const std::string &order)
    {
        bool taken = false;
        host->Bus().Send("test", "TEST_ORDER", "cookie 1", order.c_str(), &taken);
        return taken;
    }
    // What the agent hears of it.
    std::string HeardOf(const std::string &order)
    {
        EXPECT_TRUE(Order(order));
        return agent->heard.Next();
    }
    void ExpectLost(const std::string &reason = "the peer closed the connection")
    {
        EXPECT_EQ(events.Take(4),
                  "connection 0 0\ndata destroyed\ncontrol destroyed\nchannel 0 0 session -1\n");
        EXPECT_EQ(events.Next(), "lost: " + reason);
    }

    Lines events;
    std::promise<void> released;
    host::ChannelOptions options;
    std::unique_ptr<PluginHost> host;
    std::unique_ptr<HostChannel> channel;
    std::unique_ptr<TestAgent> agent;
};

TEST_F(Channel, MessagesCrossInBothDirectionsAndAreAnsweredOnce)
{
    BringUp();
    EXPECT_EQ(HeardOf("post out"), "message 2 0 5 1 [out]");
    transport::Message several{.object = TestAgent::kData, .requestId = 77, .parameterCount = 3};
    several.parameters[0] = {.isBlock = true, .block = std::as_bytes(std::span("in", 2))};
    several.parameters[1] = {.number = 5};
    several.parameters[2] = {.isBlock = true};
    agent->Main().Send(several); // wants an answer
    EXPECT_EQ(events.Next(), "message of 3 [in] 5 []");
    EXPECT_EQ(agent->heard.Next(), "done 2 77");
    several.object = 9;
    agent->Main().Send(several); // nobody there
    EXPECT_EQ(agent->heard.Next(), "abort 9 77 0");

    EXPECT_EQ(HeardOf("ask one"), "message 2 0 5 0 [one]");
    agent->Main().Send(transport::MessageDone{TestAgent::kData, agent->lastRequest});
    agent->Main().Send(transport::MessageDone{TestAgent::kData, agent->lastRequest});
    EXPECT_EQ(events.Next(), "done 0");
    EXPECT_EQ(HeardOf("ask two"), "message 2 0 5 0 [two]");
    agent->Main().Send(transport::MessageAbort{TestAgent::kData, agent->lastRequest, 9});
    EXPECT_EQ(events.Next(), "abort 0 9");
    EXPECT_EQ(HeardOf("ask three"), "message 2 0 5 0 [three]");
    agent->Main().Close("lost");
    EXPECT_EQ(events.Next(), "abort 0 0");
    ExpectLost();
}

TEST_F(Channel, AnInstanceLivesOnWithTheNextConnectionUntilItIsDestroyed)
{
    BringUp();
    for (int round = 0; round < 3; ++round) {
        agent->Main().Close("lost");
        ExpectLost();
        EXPECT_FALSE(Order("post nothing"));
        BringUp(false);
        EXPECT_EQ(HeardOf("post again"), "message 2 0 5 1 [again]");
    }
    agent->Main().Close("lost");
    ExpectLost();
    channel->DestroyInstance();
    EXPECT_EQ(events.Next(), "destroyed");

    // With its connection alive nothing is left behind either.
    BringUp();
    channel->DestroyInstance();
    EXPECT_EQ(events.Take(3), "data destroyed\ncontrol destroyed\ndestroyed\n");
    agent->Main().SendPost(TestAgent::kData, 1, {});
    agent->Main().Close("lost");
    EXPECT_EQ(events.Next(), "lost: the peer closed the connection");
    channel->Settle();
    EXPECT_TRUE(events.Empty());
}

TEST_F(Channel, AnObjectThatTheAgentEndsIsDisconnected)
{
    BringUp();
    agent->Main().Send(transport::ObjectState{TestAgent::kData, OBJECT_DISCONNECTED});
    EXPECT_EQ(events.Take(2), "data 0\ndata destroyed\n");
    agent->Main().Send(transport::ObjectAnnounce{TestAgent::kData, 0, 0, "testDataObj"});
    EXPECT_EQ(events.Take(2), "peer testDataObj\ndata 2\n");
    EXPECT_EQ(agent->heard.Next(), "state 2 2");
}

TEST_F(Channel, ATcpSideChannelCarriesTheDataObject)
{
    BringUp(true, SIDE_CHANNEL_TCP);
    EXPECT_EQ(agent->heard.Next(), "side request 2 2");
    const auto tcp = platform::ListenTcp("127.0.0.1", 0, nullptr);
    SideOffer offer{TestAgent::kData, tcp->Port(), {}};
    offer.secret.fill(std::byte{'s'});
    agent->Main().Send(offer);
    agent->TakeSide(tcp.get());
    EXPECT_EQ(agent->heard.Next(), "side: side hello 2 ssssssssssssssss");
    agent->Side().Send(transport::SideReady{TestAgent::kData});
    EXPECT_EQ(events.Take(2), "data 3\ndata 4\n");
    EXPECT_EQ(agent->heard.Next(), "state 2 4");

    EXPECT_EQ(HeardOf("post out"), "side: message 2 0 5 1 [out]");
    agent->Side().SendPost(TestAgent::kData, 1, std::as_bytes(std::span("in", 2)));
    EXPECT_EQ(events.Next(), "message of 1 [in]");
    // Large ones both ways at once, echoed by the plug-in on the reader's thread.
    EXPECT_TRUE(Order("echo"));
    const std::string large(1 << 20, 'x');
    for (uint32_t i = 0; i < 40; ++i)
        agent->Side().SendPost(TestAgent::kData, i, std::as_bytes(std::span(large)));
    for (uint32_t i = 0; i < 40; ++i)
        EXPECT_TRUE(agent->heard.Next() == "side: message 2 0 5 1 [" + large + "]");

    agent->Side().Close("lost");
    ExpectLost("the side channel ended: the peer closed the connection");
}

TEST_F(Channel, ASideChannelThatFailsIsReportedAsTheBoundarySays)
{
    const auto listen = [] { return platform::ListenTcp("127.0.0.1", 0, nullptr); };
    const auto offer = [this](uint16_t port) { agent->Main().Send(SideOffer{TestAgent::kData, port, {}}); };
    std::unique_ptr<platform::ByteStream> stream;
    const struct {
        uint32_t type;
        const char *reason;
        std::function<void()> answer; // to the request that the agent gets; none: it gets none
    } cases[] = {
        {SIDE_CHANNEL_VIRTUAL, "only TCP side channels are offered", nullptr},
        {SIDE_CHANNEL_BOLT, "only TCP side channels are offered", nullptr},
        {SIDE_CHANNEL_TCP, "no port is free",
         [&] {
             agent->Main().Send(transport::SideRefused{TestAgent::kData, "no port is free"});
         }},
        {SIDE_CHANNEL_TCP, "Connection refused",
         [&] {
             const uint16_t unused = listen()->Port(); // nobody listens by now
             offer(unused);
         }},
        {SIDE_CHANNEL_TCP, "the agent doesn't answer on it",
         [&] {
             const auto tcp = listen();
             offer(tcp->Port());
             stream = tcp->Accept();
             const ByteView wrong = std::as_bytes(std::span("something else", 14));
             EXPECT_TRUE(stream->Write({&wrong, 1}));
         }},
    };
    for (const auto &[type, reason, answer] : cases) {
        BringUp(true, type);
        if (answer) {
            EXPECT_EQ(agent->heard.Next(), "side request 2 2");
            answer();
        }
        EXPECT_EQ(events.Take(3), std::string("data 3\ndata 2\nside failed: ") + reason + "\n");
        EXPECT_EQ(agent->heard.Next(), "state 2 2");
        agent->Main().Close("lost");
        ExpectLost();
        channel.reset();
        EXPECT_EQ(events.Next(), "destroyed");
    }
}

TEST_F(Channel, AnAgentThatStopsReadingDoesNotHoldTheEndUp)
{
    BringUp(true, 0, false);
    // Fills the stream and waits.
    std::thread sender([&] {
        while (Order("post " + std::string(1 << 20, 'x'))) {
        }
    });
    channel->SayGoodbye("end");
    channel->Close("enough waited");
    sender.join();
    ExpectLost("enough waited");
}

// Whoever is told of them may be slow; what waits for it must not grow without end.
TEST_F(Channel, AnAgentThatFloodsTheChannelIsCutOff)
{
    BringUp();
    const auto send = [this](const char *text) {
        return agent->Main().Send(transport::Notice{transport::NoticeKind::Warning, text});
    };
    ASSERT_TRUE(send("hold"));
    while (send("more")) {
    }
    released.set_value();
    size_t notices = 0;
    std::string line = events.Next();
    for (; !line.starts_with("lost"); line = events.Next())
        notices += line.starts_with("notice");
    EXPECT_EQ(line, "lost: the agent sends more than can be handled");
    // One that is being handled doesn't wait any more.
    EXPECT_LE(notices, HostChannel::kMostWaitingEvents + 1);
    EXPECT_GE(notices, HostChannel::kMostWaitingEvents);
}

TEST_F(Channel, OfAnAgentsObjectsOnlySoManyAreSeen)
{
    BringUp();
    for (uint32_t id = 100; id < 200; ++id)
        agent->Main().Send(transport::ObjectAnnounce{id, 0, 0, "more" + std::to_string(id)});
    agent->Main().Send(transport::Notice{transport::NoticeKind::Warning, "that was all"});
    size_t seen = 2; // those of BringUp
    for (std::string line = events.Next(); !line.ends_with("that was all"); line = events.Next())
        seen += line.starts_with("peer more");
    EXPECT_EQ(seen, HostChannel::kMaxPeers);
}

TEST_F(Channel, GoodbyeLetsTheAgentFinish)
{
    BringUp();
    channel->SayGoodbye("the user ends it");
    EXPECT_EQ(agent->heard.Next(), "goodbye the user ends it");
    agent->Main().SendPost(TestAgent::kData, 1, std::as_bytes(std::span("last", 4)));
    agent->Main().Send(transport::Notice{transport::NoticeKind::Unmounted, "/mnt"});
    agent->Main().Send(transport::Goodbye{"done"});
    EXPECT_TRUE(agent->Main().Flush(60000));
    agent->Main().Close("done");
    EXPECT_EQ(events.Take(3), "message of 1 [last]\nnotice 5 /mnt\ngoodbye done\n");
    ExpectLost();
}

TEST_F(Channel, TokensAreCompared)
{
    options.token = "mine";
    options.expectedToken = "theirs";
    Attach();
    agent->Greet("other");
    EXPECT_EQ(events.Next(), "lost: the agent doesn't know the agreed token");
    Attach();
    agent->Main().SendPost(TestAgent::kData, 1, {});
    EXPECT_EQ(events.Next(), "lost: the agent didn't greet first");
    Attach();
    agent->Greet("theirs");
    EXPECT_EQ(events.Next(), "created");
}

TEST_F(Channel, FunctionsThatNameNoChannelTakeTheOnlyOne)
{
    EXPECT_EQ(host->CurrentChannel(), nullptr);
    Attach();
    EXPECT_EQ(host->CurrentChannel(), channel.get());
    HostChannel second(host.get(), options, nullptr);
    EXPECT_EQ(host->CurrentChannel(), nullptr);
}

TEST_F(Channel, TheBusCarriesCookiesBothWays)
{
    BringUp();
    EXPECT_TRUE(Order("cookie"));
    EXPECT_EQ(events.Next(), "test|cookie 1|answer");
    EXPECT_FALSE(Order("unknown"));
}

TEST(MessageBus, NoCallbackRunsAfterUnsubscribe)
{
    struct State {
        host::MessageBus bus;
        uint32_t id = 0;
        Signal entered, goOn;
        std::atomic<bool> gone{false};
    } state;
    EXPECT_EQ(state.bus.Subscribe(nullptr, nullptr, nullptr), 0u);
    state.id = state.bus.Subscribe("name", &state, [](void *context, auto, auto, const char *data) {
        auto *shared = static_cast<State *>(context);
        if (std::string_view(data) == "wait") {
            shared->entered.Set();
            shared->goOn.Wait();
            EXPECT_FALSE(shared->gone);
        }
        return true;
    });
    std::thread sender([&] { state.bus.Send("test", "name", nullptr, "wait"); });
    state.entered.Wait();
    std::thread remover([&] {
        state.bus.Unsubscribe(state.id);
        state.gone = true;
    });
    while (state.bus.Send("test", "name", nullptr, "pass")) // until the remover is at its wait
        std::this_thread::yield();
    state.goOn.Set();
    remover.join();
    sender.join();

    // Out of its own callback.
    state.id = state.bus.Subscribe("name", &state, [](void *context, auto, auto, auto) {
        static_cast<State *>(context)->bus.Unsubscribe(static_cast<State *>(context)->id);
        return true;
    });
    EXPECT_TRUE(state.bus.Send("test", "name", nullptr, "x"));
    EXPECT_FALSE(state.bus.Send("test", "name", nullptr, "x"));
}

TEST(PluginHost, SaysWhyAPluginCanNotBeUsed)
{
    std::string error;
    EXPECT_FALSE(PluginHost::Create("/nowhere/lib.so", &error));
    EXPECT_NE(error.find("/nowhere/lib.so"), std::string::npos);
    EXPECT_FALSE(PluginHost::Create(FODR_TEST_STRANGER, &error));
    EXPECT_NE(error.find("ODPService_PluginGetTokenName"), std::string::npos);
}

} // namespace
} // namespace fodr::test
