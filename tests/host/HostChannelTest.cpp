#include "host/HostChannel.h"

#include "host/TestAgent.h"
#include "transport/FrameCodec.h"

#include <future>
#include <gtest/gtest.h>

namespace fodr::test {
namespace {

using host::ChannelOptions;
using host::HostChannel;
using host::PluginHost;
using platform::ByteView;
using transport::Message;

class Listener final : public host::IChannelListener {
public:
    void OnNotice(transport::NoticeKind kind, const std::string &text) override
    {
        lines.Add("notice " + std::to_string(static_cast<int>(kind)) + " " + text);
    }
    void OnAgentGoodbye(const std::string &reason) override { lines.Add("goodbye " + reason); }
    void OnSideChannelFailed(const std::string &reason) override { lines.Add("side failed: " + reason); }
    void OnLost(const std::string &reason) override { lines.Add("lost: " + reason); }
    void OnInstanceRefused() override { lines.Add("refused"); }

    Lines lines;
};

class Channel : public testing::Test {
protected:
    Channel()
    {
        std::string error;
        host = PluginHost::Create(FODR_TEST_PLUGIN, &error);
        EXPECT_TRUE(host) << error;
        host->Bus().Subscribe("TEST_EVENT", this,
                              [](void *self, const char *, const char *, const char *data) {
                                  static_cast<Channel *>(self)->plugin.Add(data);
                                  return true;
                              });
        options.sideChannelHost = "127.0.0.1";
    }
    ~Channel() override
    {
        agent.reset();
        channel.reset();
        host.reset();
    }

    void Attach()
    {
        auto [ours, theirs] = platform::MakeStreamPair();
        if (!channel)
            channel = std::make_unique<HostChannel>(host.get(), options, &listener);
        channel->Attach(std::move(ours));
        agent = std::make_unique<TestAgent>(std::move(theirs));
        EXPECT_EQ(agent->heard.Next(), "hello 1 1 0 0 " + options.token);
    }
    void BringUp(uint32_t dataOptions = 0x30)
    {
        Attach();
        agent->Greet();
        EXPECT_EQ(plugin.Take(3), "created\nconnection 2\nconnecting\n");
        EXPECT_EQ(plugin.Take(1), "channel 2 session 0\n");
        agent->AnnounceObjects(dataOptions);
        EXPECT_EQ(plugin.Take(4), "peer testControlObj\ncontrol 2\npeer testDataObj\ndata 2\n");
        EXPECT_EQ(agent->heard.Next(), "state 1 2");
    }
    void Ready()
    {
        BringUp();
        EXPECT_EQ(agent->heard.Next(), "state 2 2");
    }
    bool Order(const std::string &order)
    {
        bool taken = false;
        host->Bus().Send("test", "TEST_ORDER", "cookie 1", order.c_str(), &taken);
        return taken;
    }

    Lines plugin;
    Listener listener;
    ChannelOptions options;
    std::unique_ptr<PluginHost> host;
    std::unique_ptr<HostChannel> channel;
    std::unique_ptr<TestAgent> agent;
};

TEST_F(Channel, MessagesCrossInBothDirections)
{
    Ready();
    EXPECT_TRUE(Order("post out"));
    EXPECT_EQ(plugin.Next(), "posted");
    EXPECT_EQ(agent->heard.Next(), "message 2 1 [out]");

    const std::string in = "in";
    Message several;
    several.object = TestAgent::kData;
    several.requestId = 77;
    several.parameterCount = 3;
    several.parameters[0] = {.isBlock = true, .number = 0, .block = std::as_bytes(std::span(in))};
    several.parameters[1] = {.isBlock = false, .number = 5, .block = {}};
    several.parameters[2] = {.isBlock = true, .number = 0, .block = {}};
    agent->Main().Send(several); // wants an answer
    EXPECT_EQ(plugin.Next(), "message of 3 [in] 5 []");
    EXPECT_EQ(agent->heard.Next(), "done 2 77");
    several.object = 9;
    agent->Main().Send(several); // nobody there
    EXPECT_EQ(agent->heard.Next(), "abort 9 77 0");
}

TEST_F(Channel, AskedMessagesAreReportedOnce)
{
    Ready();
    Order("ask one");
    EXPECT_EQ(plugin.Next(), "asked");
    EXPECT_EQ(agent->heard.Next(), "message 2 0 [one]");
    agent->Main().Send(transport::MessageDone{TestAgent::kData, agent->lastRequest});
    agent->Main().Send(transport::MessageDone{TestAgent::kData, agent->lastRequest});
    EXPECT_EQ(plugin.Next(), "done 0");

    Order("ask two");
    EXPECT_EQ(plugin.Next(), "asked");
    EXPECT_EQ(agent->heard.Next(), "message 2 0 [two]");
    agent->Main().Send(transport::MessageAbort{TestAgent::kData, agent->lastRequest, 9});
    EXPECT_EQ(plugin.Next(), "abort 0 9");

    Order("ask three");
    EXPECT_EQ(plugin.Next(), "asked");
    agent->Main().Close("lost");
    EXPECT_EQ(plugin.Next(), "abort 0 0");
}

TEST_F(Channel, ALostConnectionIsToldAndTheSameInstanceLivesOnWithTheNext)
{
    Ready();
    for (int round = 0; round < 3; ++round) {
        agent->Main().Close("lost");
        EXPECT_EQ(plugin.Take(4), "connection 0\ndata destroyed\ncontrol destroyed\nchannel 0 session -1\n");
        EXPECT_EQ(listener.lines.Next(), "lost: the peer closed the connection");
        EXPECT_TRUE(Order("post nothing"));
        EXPECT_EQ(plugin.Next(), "not posted");
        Attach();
        agent->Greet();
        EXPECT_EQ(plugin.Take(3), "connection 2\nconnecting\nchannel 2 session 0\n");
        agent->AnnounceObjects(0x30);
        EXPECT_EQ(plugin.Take(4), "peer testControlObj\ncontrol 2\npeer testDataObj\ndata 2\n");
        EXPECT_EQ(agent->heard.Take(2), "state 1 2\nstate 2 2\n");
        Order("post again");
        EXPECT_EQ(plugin.Next(), "posted");
        EXPECT_EQ(agent->heard.Next(), "message 2 1 [again]");
    }
}

TEST_F(Channel, ANewInstanceCanTakeOverAfterALoss)
{
    Ready();
    agent->Main().Close("lost");
    EXPECT_EQ(listener.lines.Next(), "lost: the peer closed the connection");
    plugin.Take(4);
    channel->DestroyInstance();
    EXPECT_EQ(plugin.Next(), "destroyed");
    EXPECT_FALSE(Order("post nothing"));
    Ready();
}

TEST_F(Channel, DestroyingTheInstanceOfALivingConnectionLeavesNothingBehind)
{
    Ready();
    channel->DestroyInstance();
    EXPECT_EQ(plugin.Take(3), "data destroyed\ncontrol destroyed\ndestroyed\n");
    agent->Main().SendPost(TestAgent::kData, 1, {});
    agent->Main().Close("lost");
    EXPECT_EQ(listener.lines.Next(), "lost: the peer closed the connection");
    channel->Settle();
    EXPECT_TRUE(plugin.Empty());
}

TEST_F(Channel, AnObjectThatTheAgentEndsIsDisconnected)
{
    Ready();
    agent->Main().Send(transport::ObjectState{TestAgent::kData, OBJECT_DISCONNECTED});
    EXPECT_EQ(plugin.Take(2), "data 0\ndata destroyed\n");
    agent->Main().Send(transport::ObjectAnnounce{TestAgent::kData, 0, 0x30, "testDataObj"});
    EXPECT_EQ(plugin.Take(2), "peer testDataObj\ndata 2\n");
    EXPECT_EQ(agent->heard.Next(), "state 2 2");
}

TEST_F(Channel, ATcpSideChannelCarriesTheDataObject)
{
    BringUp(0x20);
    EXPECT_EQ(plugin.Next(), "data 3");
    EXPECT_EQ(agent->heard.Take(2), "state 2 3\nside request 2 2\n");
    const auto tcp = platform::ListenTcp("127.0.0.1", 0, nullptr);
    transport::SideOffer offer{.object = TestAgent::kData, .port = tcp->Port(), .secret = {}};
    offer.secret.fill(std::byte{0x42});
    agent->Main().Send(offer);
    agent->TakeSide(tcp.get());
    EXPECT_EQ(agent->heard.Next(), "side: hello 2");
    EXPECT_EQ(agent->shownSecret, offer.secret);
    agent->Side().Send(transport::SideReady{TestAgent::kData});
    EXPECT_EQ(plugin.Next(), "data 4");
    EXPECT_EQ(agent->heard.Next(), "state 2 4");

    Order("post out");
    EXPECT_EQ(plugin.Next(), "posted");
    EXPECT_EQ(agent->heard.Next(), "side: message 2 1 [out]");
    agent->Side().SendPost(TestAgent::kData, 1, std::as_bytes(std::span("in", 2)));
    EXPECT_EQ(plugin.Next(), "message of 1 [in]");
    // Large ones both ways at once, echoed by the plug-in on the reader's thread.
    Order("echo");
    const std::vector<std::byte> large(1 << 20);
    for (uint32_t i = 0; i < 40; ++i)
        agent->Side().SendPost(TestAgent::kData, i, large);
    for (uint32_t i = 0; i < 40; ++i)
        EXPECT_EQ(agent->heard.Next(), "side: message 2 1 1048576");

    agent->Side().Close("lost");
    EXPECT_EQ(listener.lines.Next(), "lost: the side channel ended: the peer closed the connection");
    EXPECT_EQ(plugin.Take(4), "connection 0\ndata destroyed\ncontrol destroyed\nchannel 0 session -1\n");
}

TEST_F(Channel, ASideChannelThatFailsIsReportedAsTheBoundarySays)
{
    enum class Answer { None, Refuse, NobodyListens, SaysOtherwise };
    const struct {
        uint32_t dataOptions;
        Answer answer;
        const char *reason;
    } cases[] = {
        {0x10, Answer::None, "only TCP side channels are offered"},
        {0x40, Answer::None, "only TCP side channels are offered"},
        {0x20, Answer::Refuse, "no port is free"},
        {0x20, Answer::NobodyListens, "Connection refused"},
        {0x20, Answer::SaysOtherwise, "the agent doesn't answer on it"},
    };
    for (const auto &test : cases) {
        BringUp(test.dataOptions);
        EXPECT_EQ(plugin.Next(), "data 3");
        EXPECT_EQ(agent->heard.Next(), "state 2 3");
        auto tcp = platform::ListenTcp("127.0.0.1", 0, nullptr);
        if (test.answer != Answer::None) {
            EXPECT_EQ(agent->heard.Next(), "side request 2 2");
        }
        if (test.answer == Answer::Refuse)
            agent->Main().Send(transport::SideRefused{TestAgent::kData, "no port is free"});
        if (test.answer == Answer::NobodyListens || test.answer == Answer::SaysOtherwise) {
            const transport::SideOffer offer{.object = TestAgent::kData, .port = tcp->Port(), .secret = {}};
            if (test.answer == Answer::NobodyListens)
                tcp.reset();
            agent->Main().Send(offer);
        }
        if (test.answer == Answer::SaysOtherwise) {
            const auto stream = tcp->Accept();
            const ByteView wrong = std::as_bytes(std::span("something else", 14));
            EXPECT_TRUE(stream->Write({&wrong, 1}));
            EXPECT_EQ(listener.lines.Next(), std::string("side failed: ") + test.reason);
        } else {
            EXPECT_EQ(listener.lines.Next(), std::string("side failed: ") + test.reason);
        }
        EXPECT_EQ(plugin.Next(), "data 2");
        EXPECT_EQ(agent->heard.Next(), "state 2 2");
        agent->Main().Close("lost");
        EXPECT_EQ(listener.lines.Next(), "lost: the peer closed the connection");
        channel.reset();
        while (plugin.Next() != "destroyed") {
        }
    }
}

TEST_F(Channel, AnAgentThatStopsReadingDoesNotHoldTheEndUp)
{
    auto [ours, theirs] = platform::MakeStreamPair();
    channel = std::make_unique<HostChannel>(host.get(), options, &listener);
    channel->Attach(std::move(ours));
    transport::Hello hello;
    hello.role = transport::Role::Agent;
    const std::vector<std::byte> frames[] = {
        transport::EncodeFrame(hello),
        transport::EncodeFrame(transport::ObjectAnnounce{TestAgent::kData, 0, 0x30, "testDataObj"})};
    const ByteView blocks[] = {frames[0], frames[1]};
    ASSERT_TRUE(theirs->Write(blocks));
    EXPECT_EQ(plugin.Take(6),
              "created\nconnection 2\nconnecting\nchannel 2 session 0\npeer testDataObj\ndata 2\n");
    // Fills the stream and waits.
    std::thread sender([&] {
        const std::string order = "post " + std::string(1 << 20, 'x');
        do
            Order(order);
        while (plugin.Next() == "posted");
    });
    channel->SayGoodbye("end");
    channel->Close("enough waited");
    sender.join();
    EXPECT_EQ(listener.lines.Next(), "lost: enough waited");
}

TEST_F(Channel, GoodbyeLetsTheAgentFinish)
{
    Ready();
    channel->SayGoodbye("the user ends it");
    EXPECT_EQ(agent->heard.Next(), "goodbye the user ends it");
    agent->Main().SendPost(TestAgent::kData, 1, std::as_bytes(std::span("last", 4)));
    EXPECT_EQ(plugin.Next(), "message of 1 [last]");
    agent->Main().Send(transport::Notice{transport::NoticeKind::Unmounted, "/mnt"});
    agent->Main().Send(transport::Goodbye{"done"});
    EXPECT_TRUE(agent->Main().Flush(60000));
    agent->Main().Close("done");
    EXPECT_EQ(listener.lines.Take(3), "notice 5 /mnt\ngoodbye done\nlost: the peer closed the connection\n");
}

TEST_F(Channel, TokensAreCompared)
{
    options.token = "mine";
    options.expectedToken = "theirs";
    Attach();
    agent->Greet("other");
    EXPECT_EQ(listener.lines.Next(), "lost: the agent doesn't know the agreed token");
    Attach();
    agent->Main().SendPost(TestAgent::kData, 1, {});
    EXPECT_EQ(listener.lines.Next(), "lost: the agent didn't greet first");
    EXPECT_TRUE(plugin.Empty());
    Attach();
    agent->Greet("theirs");
    EXPECT_EQ(plugin.Take(1), "created\n");
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
    Ready();
    std::promise<std::string> answer;
    const uint32_t id = host->Bus().Subscribe(
        "TEST_ANSWER", &answer, [](void *promise, const char *sender, const char *cookie, const char *data) {
            static_cast<std::promise<std::string> *>(promise)->set_value(std::string(sender) + "|" + cookie +
                                                                         "|" + data);
            return true;
        });
    EXPECT_TRUE(Order("cookie"));
    EXPECT_EQ(answer.get_future().get(), "test|cookie 1|answer");
    EXPECT_FALSE(Order("unknown"));
    host->Bus().Unsubscribe(id);
    EXPECT_TRUE(Order("cookie")); // nobody hears it
}

TEST(MessageBus, NoCallbackRunsAfterUnsubscribe)
{
    host::MessageBus bus;
    struct State {
        std::promise<void> entered;
        std::promise<void> goOn;
        std::atomic<bool> gone{false};
    } state;
    const uint32_t id =
        bus.Subscribe("name", &state, [](void *context, const char *, const char *, const char *) {
            auto *shared = static_cast<State *>(context);
            shared->entered.set_value();
            shared->goOn.get_future().wait();
            EXPECT_FALSE(shared->gone);
            return true;
        });
    EXPECT_EQ(bus.Subscribe(nullptr, nullptr, nullptr), 0u);
    std::thread sender([&] { bus.Send("test", "name", nullptr, "x"); });
    state.entered.get_future().wait();
    std::thread remover([&] {
        bus.Unsubscribe(id);
        state.gone = true;
    });
    state.goOn.set_value();
    remover.join();
    sender.join();
    EXPECT_FALSE(bus.Send("test", "name", nullptr, "x"));

    // Out of its own callback.
    struct Self {
        host::MessageBus *bus;
        uint32_t id;
    } self{&bus, 0};
    self.id = bus.Subscribe("name", &self, [](void *context, const char *, const char *, const char *) {
        static_cast<Self *>(context)->bus->Unsubscribe(static_cast<Self *>(context)->id);
        return true;
    });
    EXPECT_TRUE(bus.Send("test", "name", nullptr, "x"));
    EXPECT_FALSE(bus.Send("test", "name", nullptr, "x"));
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
