#include "plugin/RPCManager.h"

#include "SettingsFixture.h"
#include "plugin/RPCPluginInstance.h"
#include "plugin/RecordingHost.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace fodr {
namespace {

using test::RecordingHost;

struct CountingInstance : RPCPluginInstance {
    using RPCPluginInstance::RPCPluginInstance;
    void OnReady() override { ++readyCalls; }
    void OnNotReady() override { ++notReadyCalls; }
    void OnConnectFailed() override { ++failedCalls; }
    int readyCalls = 0;
    int notReadyCalls = 0;
    int failedCalls = 0;
};

struct TestManager : RPCManager {
    TestManager() : RPCManager("fodr", "fodrControlObj", "fodrDataObj", "fodrDataObjTcp") {}
    RPCPluginInstance *CreatePluginInstance() override { return last = new CountingInstance(this); }
    CountingInstance *last = nullptr;
};

class RPCManagerTest : public testing::Test {
protected:
    // Initialises the manager and makes an instance with its sink registered.
    CountingInstance *Start()
    {
        manager.ODPPluginInit(host.Record());
        void *made = nullptr;
        EXPECT_TRUE(manager.ODPPluginCreateInstance(this, &made));
        return static_cast<CountingInstance *>(made);
    }
    void Finish(CountingInstance *instance) { manager.ODPPluginDestroyInstance(instance); }
    bool CanSend(CountingInstance *instance)
    {
        void *message = nullptr;
        if (!instance->CreateMessage(&message, RPCPluginInstance::kDataChannel))
            return false;
        instance->DestroyMessage(message);
        return true;
    }

    test::SettingsFixture settings; // an empty store
    RecordingHost host;
    TestManager manager;
};

TEST_F(RPCManagerTest, InitNeedsTheClientInterfacesAndTriesNewestFirst)
{
    struct {
        std::set<uint16_t> refused;
        bool initialised;
    } cases[] = {
        {{}, true},
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
    for (const auto &c : cases) {
        RecordingHost other;
        other.refused = c.refused;
        TestManager fresh;
        EXPECT_TRUE(fresh.ODPPluginInit(other.Record())); // true whatever happened
        EXPECT_EQ(fresh.IsInitialized(), c.initialised);
        void *instance = this;
        if (!c.initialised) {
            EXPECT_FALSE(fresh.ODPPluginCreateInstance(this, &instance));
            EXPECT_EQ(instance, this);
        }
    }
    RecordingHost all;
    TestManager fresh;
    fresh.ODPPluginInit(all.Record());
    EXPECT_EQ(all.asked, (std::vector<uint16_t>{0x000b, 0x0012, 0x0008, 0x0000, 0x000e, 0x0007}));
}

TEST_F(RPCManagerTest, AnInstanceIsReadyWhenBothObjectsAreConnectedInEitherOrder)
{
    for (bool dataFirst : {false, true}) {
        CountingInstance *instance = Start();
        host.calls.clear();
        host.Connection(CONNECTION_CONNECTED);
        EXPECT_EQ(host.LastCall(), "Connect");
        host.Channel(CONNECTION_CONNECTED);
        host.PeerObject("someOtherObj");
        EXPECT_EQ(host.LastCall(), "Connect");
        host.PeerObject(dataFirst ? "fodrDataObj" : "fodrControlObj");
        host.PeerObject(dataFirst ? "fodrControlObj" : "fodrDataObj");
        EXPECT_TRUE(host.Called("CreateObject fodrControlObj 0xd"));
        EXPECT_TRUE(host.Called("CreateObject fodrDataObj 0xd"));
        host.Object(dataFirst ? "fodrDataObj" : "fodrControlObj", OBJECT_CONNECTED);
        EXPECT_FALSE(CanSend(instance));
        host.Object(dataFirst ? "fodrControlObj" : "fodrDataObj", OBJECT_CONNECTED);
        EXPECT_TRUE(CanSend(instance));
        EXPECT_EQ(instance->readyCalls, 1);
        Finish(instance);
        host.connectionState = CONNECTION_DISCONNECTED;
        manager.ODPPluginExit();
    }
}

TEST_F(RPCManagerTest, InAFlareSessionObjectsCarryTheBoltBit)
{
    host.sessionType = SESSION_FLARE;
    CountingInstance *instance = Start();
    host.BringUp();
    EXPECT_TRUE(host.Called("CreateObject fodrControlObj 0x4d"));
    Finish(instance);
}

TEST_F(RPCManagerTest, AReconnectMakesNewObjectsOnTheSameInstance)
{
    CountingInstance *instance = Start();
    for (int round = 1; round <= 2; ++round) {
        host.calls.clear();
        host.BringUp();
        EXPECT_TRUE(CanSend(instance));
        EXPECT_EQ(instance->readyCalls, round);
        host.Connection(CONNECTION_DISCONNECTED);
        EXPECT_TRUE(host.Called("Disconnect"));
        EXPECT_TRUE(host.Called("DestroyObject fodrDataObj"));
        EXPECT_TRUE(host.Called("DestroyObject fodrControlObj"));
        EXPECT_FALSE(CanSend(instance));
        EXPECT_EQ(instance->notReadyCalls, round);
        host.Channel(CONNECTION_DISCONNECTED); // harmless the second time
    }
    EXPECT_EQ(instance->failedCalls, 0);
    Finish(instance);
}

TEST_F(RPCManagerTest, NoticesActOnTheCurrentConnectionStateButOnTheReportedChannelState)
{
    CountingInstance *instance = Start();
    host.Connection(CONNECTION_DISCONNECTED, CONNECTION_CONNECTED);
    EXPECT_FALSE(host.Called("Connect"));
    host.Connection(CONNECTION_CONNECTED, CONNECTION_DISCONNECTED);
    EXPECT_TRUE(host.Called("Connect"));
    // The channel goes before it ever came up: the attempt has failed.
    host.channelSink.OnChannelStateChanged(host.channelUserData, CONNECTION_CONNECTED,
                                           CONNECTION_DISCONNECTED);
    EXPECT_EQ(instance->failedCalls, 1);
    Finish(instance);
}

TEST_F(RPCManagerTest, ALostObjectIsDestroyedByItsOwnNotice)
{
    for (const char *lost : {"fodrDataObj", "fodrControlObj"}) {
        CountingInstance *instance = Start();
        host.BringUp();
        host.Object(lost, OBJECT_DISCONNECTED);
        EXPECT_TRUE(host.Called(std::string("DestroyObject ") + lost));
        EXPECT_FALSE(CanSend(instance));
        EXPECT_EQ(instance->notReadyCalls, 1);
        Finish(instance);
        EXPECT_TRUE(host.objects.empty());
        host.connectionState = CONNECTION_DISCONNECTED;
        manager.ODPPluginExit();
    }
}

TEST_F(RPCManagerTest, WhenTheHostIsConnectedAlreadyTheNoticesAreSimulated)
{
    host.connectionState = CONNECTION_CONNECTED;
    CountingInstance *instance = Start();
    EXPECT_TRUE(host.Called("Connect"));
    Finish(instance);
    EXPECT_TRUE(host.Called("Disconnect"));
    EXPECT_FALSE(host.sinkRegistered);
}

struct SideChannelCase {
    const char *what;
    std::optional<std::string> tcpEnabled;
    std::optional<std::string> vchanEnabled;
    int32_t session;
    bool withOptions;
    uint32_t options;
    int requested; // 0: none, the data object is connected as it is
};

constexpr int32_t kPcoip = SESSION_PCOIP;
constexpr int32_t kFlare = SESSION_FLARE;

const SideChannelCase kSideChannelCases[] = {
    {"nothing set", {}, {}, kPcoip, true, 0, 0},
    {"both bits mean none", "true", {}, kPcoip, true, 0x30, 0},
    {"the agent asks for virtual", {}, {}, kPcoip, true, 0x10, 1},
    {"the agent asks for tcp against the settings", "false", {}, kPcoip, true, 0x20, 2},
    {"bolt outside a flare session is virtual", {}, {}, kPcoip, true, 0x50, 1},
    {"bolt", {}, {}, kFlare, true, 0x50, 3},
    {"the bolt bit alone counts as an option", {}, {}, kFlare, true, 0x40, 2},
    {"other bits are no options", {}, {}, kPcoip, true, 0x400800, 0},
    {"tcp by settings", "true", {}, kPcoip, true, 0, 2},
    {"only the letters of the word count", "TRUEish", {}, kPcoip, true, 0, 2},
    {"a word is not a number", "1", {}, kPcoip, true, 0, 0},
    {"tcp goes before virtual", "true", "true", kPcoip, true, 0, 2},
    {"virtual by settings", "false", "True", kPcoip, true, 0, 1},
    {"the virtual setting is compared whole", {}, "trueish", kPcoip, true, 0, 0},
    {"no options entry in the table", "true", {}, kPcoip, false, 0x10, 2},
};

TEST_F(RPCManagerTest, TheAgentsOptionsGoBeforeTheSettings)
{
    for (const SideChannelCase &c : kSideChannelCases) {
        SCOPED_TRACE(c.what);
        test::SettingsFixture store;
        if (c.tcpEnabled)
            store.SetText("tcpEnabled", *c.tcpEnabled);
        if (c.vchanEnabled)
            store.SetText("vchanSideChannelEnabled", *c.vchanEnabled);
        RecordingHost other;
        other.sessionType = c.session;
        other.withObjectOptions = c.withOptions;
        other.objectOptions = c.options;
        TestManager fresh;
        fresh.ODPPluginInit(other.Record());
        void *made = nullptr;
        fresh.ODPPluginCreateInstance(this, &made);
        auto *instance = static_cast<CountingInstance *>(made);
        other.BringUp();
        if (c.requested == 0) {
            EXPECT_EQ(instance->readyCalls, 1);
        } else {
            EXPECT_EQ(other.LastCall(), "RequestSideChannel " + std::to_string(c.requested) + " fodr");
            EXPECT_EQ(instance->readyCalls, 0);
            other.Object("fodrDataObj", OBJECT_SIDE_CHANNEL_PENDING);
            other.Object("fodrDataObj", OBJECT_SIDE_CHANNEL_CONNECTED);
            EXPECT_EQ(instance->readyCalls, 1);
        }
        fresh.ODPPluginDestroyInstance(instance);
    }
}

TEST_F(RPCManagerTest, AFailedSideChannelIsNotReplacedByTheMainChannel)
{
    host.objectOptions = ODP_OPTION_TCP;
    CountingInstance *instance = Start();
    host.BringUp();
    host.Object("fodrDataObj", OBJECT_SIDE_CHANNEL_CONNECTED); // not pending: ignored
    EXPECT_EQ(instance->readyCalls, 0);
    host.Object("fodrDataObj", OBJECT_SIDE_CHANNEL_PENDING);
    size_t requests = host.calls.size();
    host.Object("fodrDataObj", OBJECT_CONNECTED);
    EXPECT_EQ(host.calls.size(), requests);
    EXPECT_EQ(instance->readyCalls, 0);
    EXPECT_FALSE(CanSend(instance));
    Finish(instance);
}

TEST_F(RPCManagerTest, PostedMessagesAskForNoReportAndFailedOnesStayWithTheCaller)
{
    CountingInstance *instance = Start();
    host.BringUp();
    void *message = nullptr;
    ASSERT_TRUE(instance->CreateMessage(&message, RPCPluginInstance::kDataChannel));
    EXPECT_TRUE(instance->InvokeMessage(message, false, RPCPluginInstance::kDataChannel));
    EXPECT_TRUE(host.lastWasPosted);
    EXPECT_EQ(host.lastMessageSink.OnMsgDone, nullptr);
    EXPECT_EQ(host.lastMessageSink.OnMsgAbort, nullptr);

    ASSERT_TRUE(instance->CreateMessage(&message, RPCPluginInstance::kDataChannel));
    EXPECT_TRUE(instance->InvokeMessage(message, true, RPCPluginInstance::kDataChannel));
    EXPECT_NE(host.lastMessageSink.OnMsgDone, nullptr);
    host.lastMessageSink.OnMsgDone(instance, 1, nullptr);
    host.lastMessageSink.OnMsgDone(instance, 1, nullptr); // one too many is absorbed

    host.invokeSucceeds = false;
    ASSERT_TRUE(instance->CreateMessage(&message, RPCPluginInstance::kDataChannel));
    EXPECT_FALSE(instance->InvokeMessage(message, false, RPCPluginInstance::kDataChannel));
    EXPECT_EQ(host.liveMessages, 1);
    instance->DestroyMessage(message);
    Finish(instance);
}

TEST_F(RPCManagerTest, ExtendedMessagesNeedTheEntryOnlyWhenTheyHaveOptions)
{
    host.withExtContext = false;
    CountingInstance *instance = Start();
    host.BringUp();
    void *message = nullptr;
    EXPECT_FALSE(instance->CreateExtMessage(&message, RPCPluginInstance::kDataChannel, 0x800));
    ASSERT_TRUE(instance->CreateExtMessage(&message, RPCPluginInstance::kDataChannel, 0));
    instance->DestroyMessage(message);
    Finish(instance);
}

} // namespace
} // namespace fodr
