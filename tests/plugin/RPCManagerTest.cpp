#include "plugin/RPCManager.h"

#include "SettingsFixture.h"
#include "plugin/RPCPluginInstance.h"
#include "plugin/RecordingHost.h"

#include <gtest/gtest.h>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace fodr {
namespace {

using test::RecordingHost;
using Strings = std::vector<std::string>;

struct TracedInstance : RPCPluginInstance {
    using RPCPluginInstance::RPCPluginInstance;
    void OnInvoke(void *) override { throw std::bad_alloc(); }
    void OnReady() override { events += "ready "; }
    void OnNotReady() override { events += "gone "; }
    void OnConnectFailed() override { events += "failed "; }
    std::string events;
};

struct TestManager : RPCManager {
    TestManager() : RPCManager("fodr", "fodrControlObj", "fodrDataObj", "fodrDataObjTcp") {}
    RPCPluginInstance *CreatePluginInstance() override { return new TracedInstance(this); }
};

// One instance on a host of its own. What is set in the host before Start() is found by the manager.
struct Session {
    ~Session() { Finish(); }
    void Start()
    {
        void *made = nullptr;
        manager.ODPPluginInit(host.Record());
        EXPECT_TRUE(manager.ODPPluginCreateInstance(this, &made));
        instance = static_cast<TracedInstance *>(made);
    }
    void Finish()
    {
        if (instance)
            manager.ODPPluginDestroyInstance(std::exchange(instance, nullptr));
    }
    void *Message()
    {
        void *message = nullptr;
        EXPECT_TRUE(instance->CreateMessage(&message, RPCPluginInstance::kDataChannel));
        return message;
    }
    bool CanSend()
    {
        void *message = nullptr;
        return instance->CreateMessage(&message, RPCPluginInstance::kDataChannel) &&
               instance->DestroyMessage(message);
    }

    RecordingHost host;
    TestManager manager;
    TracedInstance *instance = nullptr;
};

class RPCManagerTest : public testing::Test {
    test::SettingsFixture settings; // an empty store
};

TEST_F(RPCManagerTest, InitNeedsTheClientInterfacesAndTriesNewestFirst)
{
    const std::pair<std::set<uint16_t>, bool> cases[] = {
        {{0x000b, 0x0010}, true},
        {{0x000b, 0x0010, 0x0006}, false},
        {{0x0012, 0x000f, 0x000a}, true},
        {{0x0012, 0x000f, 0x000a, 0x0002}, false},
        {{0x0008, 0x0003}, false},
        {{0x0000}, false},
        {{0x000e, 0x000c}, true}, // stream data is optional
        {{0x0007}, true},
        {{0x0007, 0x0005}, false}, // needed, although only its presence counts
    };
    for (const auto &[refused, initialised] : cases) {
        RecordingHost host;
        host.refused = refused;
        TestManager manager;
        EXPECT_TRUE(manager.ODPPluginInit(host.Record())); // true whatever happened
        EXPECT_EQ(manager.IsInitialized(), initialised);
        void *instance = this;
        EXPECT_TRUE(initialised || !manager.ODPPluginCreateInstance(this, &instance));
        EXPECT_EQ(instance, this);
    }
    Session all;
    all.Start();
    EXPECT_EQ(all.host.asked, (std::vector<uint16_t>{0x000b, 0x0012, 0x0008, 0x0000, 0x000e, 0x0007}));
}

TEST_F(RPCManagerTest, AnInstanceIsReadyWhenBothObjectsAreConnectedInEitherOrder)
{
    for (auto [first, second] :
         {std::pair{"fodrControlObj", "fodrDataObj"}, {"fodrDataObj", "fodrControlObj"}}) {
        Session session;
        RecordingHost &host = session.host;
        session.Start();
        host.Connection(CONNECTION_CONNECTED);
        host.Channel(CONNECTION_CONNECTED);
        host.PeerObject("someOtherObj");
        host.PeerObject(first);
        host.PeerObject(second);
        EXPECT_EQ(host.calls, (Strings{"Connect", std::string("CreateObject ") + first + " 0xd",
                                       std::string("CreateObject ") + second + " 0xd"}));
        host.ObjectState(first, OBJECT_CONNECTED);
        EXPECT_FALSE(session.CanSend());
        host.ObjectState(second, OBJECT_CONNECTED);
        EXPECT_TRUE(session.CanSend());
        EXPECT_EQ(session.instance->events, "ready ");

        host.calls.clear();
        host.ObjectState(first, OBJECT_DISCONNECTED); // each is destroyed by its own notice
        EXPECT_EQ(host.calls, Strings{std::string("DestroyObject ") + first});
        EXPECT_FALSE(session.CanSend());
        EXPECT_EQ(session.instance->events, "ready gone ");
        session.Finish();
        EXPECT_TRUE(host.objects.empty());
    }
}

TEST_F(RPCManagerTest, AHostMayReportAnObjectsStateFromInsideItsCalls)
{
    for (const bool elsewhere : {false, true}) {
        Session session;
        RecordingHost &host = session.host;
        host.reportsAtOnce = true;
        host.reportsFromElsewhere = elsewhere;
        session.Start();
        host.Connection(CONNECTION_CONNECTED);
        host.Channel(CONNECTION_CONNECTED);
        host.PeerObject("fodrControlObj");
        host.PeerObject("fodrDataObj");
        EXPECT_EQ(session.instance->events, "ready ");
        EXPECT_TRUE(session.CanSend());
        const RecordingHost::Object object = host.objects.at("fodrDataObj");
        host.calls.clear();
        host.Connection(CONNECTION_DISCONNECTED);
        EXPECT_EQ(host.calls,
                  (Strings{"Disconnect", "DestroyObject fodrDataObj", "DestroyObject fodrControlObj"}));
        EXPECT_EQ(session.instance->events, "ready gone ");
        object.sink.OnObjectStateChanged(object.userData); // too late for an object that is gone
        EXPECT_FALSE(session.CanSend());
    }
}

TEST_F(RPCManagerTest, NothingIsThrownToTheHost)
{
    Session session;
    session.Start();
    session.host.BringUp();
    EXPECT_NO_THROW(session.host.Deliver({"a"}));
    EXPECT_NO_THROW(session.host.PeerObject(nullptr));
}

TEST_F(RPCManagerTest, ARecordWithoutQueryInterfaceIsNotReplacedByTheOneBefore)
{
    Session session;
    session.Start();
    session.Finish();
    session.manager.ODPPluginExit();
    session.host.asked.clear();
    const PluginHostRecord none{};
    EXPECT_TRUE(session.manager.ODPPluginInit(&none));
    EXPECT_FALSE(session.manager.IsInitialized());
    EXPECT_FALSE(session.manager.QueryHostInterface(ODP_OBSERVER, nullptr));
    EXPECT_TRUE(session.host.asked.empty());
}

TEST_F(RPCManagerTest, AReconnectMakesNewObjectsOnTheSameInstance)
{
    Session session;
    session.Start();
    for (std::string events : {"ready gone ", "ready gone ready gone "}) {
        session.host.BringUp();
        EXPECT_TRUE(session.CanSend());
        session.host.calls.clear();
        session.host.Connection(CONNECTION_DISCONNECTED);
        EXPECT_EQ(session.host.calls,
                  (Strings{"Disconnect", "DestroyObject fodrDataObj", "DestroyObject fodrControlObj"}));
        EXPECT_FALSE(session.CanSend());
        session.host.Channel(CONNECTION_DISCONNECTED); // harmless the second time
        EXPECT_EQ(session.instance->events, events);
    }
}

TEST_F(RPCManagerTest, NoticesActOnTheCurrentConnectionStateButOnTheReportedChannelState)
{
    Session session;
    RecordingHost &host = session.host;
    session.Start();
    host.Connection(CONNECTION_DISCONNECTED, CONNECTION_CONNECTED);
    EXPECT_EQ(host.calls, Strings{});
    host.Connection(CONNECTION_CONNECTED, CONNECTION_DISCONNECTED);
    EXPECT_EQ(host.calls, Strings{"Connect"});
    // The channel goes before it ever came up: the attempt has failed.
    host.channelSink.OnChannelStateChanged(host.channelUserData, CONNECTION_CONNECTED,
                                           CONNECTION_DISCONNECTED);
    EXPECT_EQ(session.instance->events, "failed ");
}

TEST_F(RPCManagerTest, WhenTheHostIsConnectedAlreadyTheNoticesAreSimulated)
{
    Session session;
    session.host.connectionState = CONNECTION_CONNECTED;
    session.Start();
    EXPECT_EQ(session.host.calls, Strings{"Connect"});
    session.Finish();
    EXPECT_TRUE(session.host.Called("Disconnect"));
    EXPECT_FALSE(session.host.sinkRegistered);
}

TEST_F(RPCManagerTest, TheAgentsOptionsGoBeforeTheSettings)
{
    constexpr int32_t kPcoip = SESSION_PCOIP, kFlare = SESSION_FLARE;
    const struct {
        const char *what, *tcpEnabled, *vchanEnabled; // null: not set
        int32_t sessionType;
        bool withOptions;
        uint32_t options;
        int requested; // 0: none, the data object is connected as it is
    } cases[] = {
        {"nothing set", nullptr, nullptr, kPcoip, true, 0, 0},
        {"both bits mean none", "true", nullptr, kPcoip, true, 0x30, 0},
        {"the agent asks for virtual", nullptr, nullptr, kPcoip, true, 0x10, 1},
        {"the agent asks for tcp against the settings", "false", nullptr, kPcoip, true, 0x20, 2},
        {"bolt outside a flare session is virtual", nullptr, nullptr, kPcoip, true, 0x50, 1},
        {"bolt", nullptr, nullptr, kFlare, true, 0x50, 3},
        {"the bolt bit alone counts as an option", nullptr, nullptr, kFlare, true, 0x40, 2},
        {"other bits are no options", nullptr, nullptr, kPcoip, true, 0x400800, 0},
        {"tcp by settings", "true", nullptr, kPcoip, true, 0, 2},
        {"only the letters of the word count", "TRUEish", nullptr, kPcoip, true, 0, 2},
        {"a word is not a number", "1", nullptr, kPcoip, true, 0, 0},
        {"tcp goes before virtual", "true", "true", kPcoip, true, 0, 2},
        {"virtual by settings", "false", "True", kPcoip, true, 0, 1},
        {"the virtual setting is compared whole", nullptr, "trueish", kPcoip, true, 0, 0},
        {"no options entry in the table", "true", nullptr, kPcoip, false, 0x10, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        test::SettingsFixture store;
        if (c.tcpEnabled)
            store.SetText("tcpEnabled", c.tcpEnabled);
        if (c.vchanEnabled)
            store.SetText("vchanSideChannelEnabled", c.vchanEnabled);
        Session session;
        RecordingHost &host = session.host;
        host.sessionType = c.sessionType;
        host.withObjectOptions = c.withOptions;
        host.objectOptions = c.options;
        session.Start();
        host.BringUp();
        const std::string flags = c.sessionType == kFlare ? "0x4d" : "0xd"; // in flare with the bolt bit
        EXPECT_TRUE(host.Called("CreateObject fodrControlObj " + flags));
        if (c.requested != 0) {
            EXPECT_EQ(host.calls.back(), "RequestSideChannel " + std::to_string(c.requested) + " fodr");
            EXPECT_EQ(session.instance->events, "");
            host.ObjectState("fodrDataObj", OBJECT_SIDE_CHANNEL_PENDING);
            host.ObjectState("fodrDataObj", OBJECT_SIDE_CHANNEL_CONNECTED);
        }
        EXPECT_EQ(session.instance->events, "ready ");
    }
}

TEST_F(RPCManagerTest, AFailedSideChannelIsNotReplacedByTheMainChannel)
{
    Session session;
    RecordingHost &host = session.host;
    host.objectOptions = ODP_OPTION_TCP;
    session.Start();
    host.BringUp();
    host.ObjectState("fodrDataObj", OBJECT_SIDE_CHANNEL_CONNECTED); // not pending: ignored
    EXPECT_EQ(session.instance->events, "");
    host.ObjectState("fodrDataObj", OBJECT_SIDE_CHANNEL_PENDING);
    host.calls.clear();
    host.ObjectState("fodrDataObj", OBJECT_CONNECTED);
    EXPECT_EQ(host.calls, Strings{});
    EXPECT_EQ(session.instance->events, "");
    EXPECT_FALSE(session.CanSend());
}

TEST_F(RPCManagerTest, MessagesReportWhenAskedAndStayWithTheCallerWhenTheyFail)
{
    constexpr int32_t kData = RPCPluginInstance::kDataChannel;
    Session session;
    RecordingHost &host = session.host;
    host.withExtContext = false;
    session.Start();
    host.BringUp();
    EXPECT_TRUE(session.instance->InvokeMessage(session.Message(), false, kData));
    EXPECT_TRUE(host.lastWasPosted);
    EXPECT_EQ(host.lastMessageSink.OnMsgDone, nullptr);
    EXPECT_EQ(host.lastMessageSink.OnMsgAbort, nullptr);

    EXPECT_TRUE(session.instance->InvokeMessage(session.Message(), true, kData));
    ASSERT_NE(host.lastMessageSink.OnMsgDone, nullptr);
    host.lastMessageSink.OnMsgDone(session.instance, 1, nullptr);
    host.lastMessageSink.OnMsgDone(session.instance, 1, nullptr); // one too many is absorbed

    host.invokeSucceeds = false;
    void *message = session.Message();
    EXPECT_FALSE(session.instance->InvokeMessage(message, false, kData));
    EXPECT_EQ(host.liveMessages, 1);
    session.instance->DestroyMessage(message);

    // The entry for extended messages, which this host lacks, is needed only when they have options.
    EXPECT_FALSE(session.instance->CreateExtMessage(&message, kData, 0x800));
    ASSERT_TRUE(session.instance->CreateExtMessage(&message, kData, 0));
    session.instance->DestroyMessage(message);
}

} // namespace
} // namespace fodr
