#include "plugin/RPCPluginInstance.h"

#include "plugin/RPCManager.h"
#include "runtime/LogCall.h"

#include <cstdio>

namespace fodr {

namespace {

// Bits of CreateObject's flags.
constexpr uint32_t kFlagBase = 0x1;
constexpr uint32_t kFlag4 = 0x4;
constexpr uint32_t kFlag8 = 0x8;

// For the log, which shows a pointer alike on every system.
unsigned long long Address(const RPCPluginInstance *instance)
{
    return reinterpret_cast<uintptr_t>(instance);
}

} // namespace

RPCPluginInstance::RPCPluginInstance(RPCManager *owner) : manager(owner)
{
    LOG_INFO("0x%016llX created\n", Address(this));
}

RPCPluginInstance::~RPCPluginInstance()
{
    LOG_INFO("0x%016llX destroyed\n", Address(this));
}

// Stream mode is a switch that nothing turns on; with it every channel operation refuses.
bool RPCPluginInstance::RefuseInStreamMode(const char *operation) const
{
    if (!streamData)
        return false;
    LOG_ERROR("%s is not supported in streamData mode\n", operation);
    return true;
}

bool RPCPluginInstance::RegisterChannelSink(void *hostChannel)
{
    FODR_TRACE_FUNCTION();
    if (RefuseInStreamMode("RegisterChannelSink"))
        return false;
    if (sinkId != kNoSink) {
        LOG_ERROR("Channel sink already registered\n");
        return true;
    }
    if (!manager->channelApi.RegisterChannelNotifySink(&manager->channelSink, this, &sinkId)) {
        LOG_ERROR("Channel.v1.RegisterChannelNotifySink() failed\n");
        return false;
    }
    channel = hostChannel;
    LOG_INFO("Channel.v1.RegisterChannelNotifySink() [OK]\n");
    if (manager->channelApi.GetConnectionState() == CONNECTION_CONNECTED) {
        LOG_INFO("Simulating connect callback\n");
        RPCManager::OnConnectionStateChanged(this, CONNECTION_CONNECTED, CONNECTION_CONNECTED);
    }
    return true;
}

bool RPCPluginInstance::UnregisterChannelSink()
{
    FODR_TRACE_FUNCTION();
    if (RefuseInStreamMode("UnregisterChannelSink"))
        return false;
    if (sinkId == kNoSink) {
        LOG_ERROR("Channel sink not registered\n");
        return false;
    }
    if (manager->channelApi.GetConnectionState() == CONNECTION_CONNECTED) {
        LOG_INFO("Simulating disconnect callback\n");
        RPCManager::OnConnectionStateChanged(this, CONNECTION_DISCONNECTED, CONNECTION_DISCONNECTED);
    }
    bool done = manager->channelApi.UnregisterChannelNotifySink(sinkId);
    if (done)
        LOG_INFO("Channel.v1.UnregisterChannelNotifySink() [OK]\n");
    else
        LOG_ERROR("Channel.v1.UnregisterChannelNotifySink() failed\n");
    channel = nullptr;
    sinkId = kNoSink;
    return done;
}

bool RPCPluginInstance::ChannelConnect()
{
    FODR_TRACE_FUNCTION();
    if (RefuseInStreamMode("ChannelConnect"))
        return false;
    if (!manager->channelApi.Connect()) {
        LOG_ERROR("Channel.v1.Connect() failed\n");
        return false;
    }
    LOG_INFO("Channel.v1.Connect() [OK]\n");
    channelConnecting = true;
    return true;
}

bool RPCPluginInstance::ChannelDisconnect()
{
    FODR_TRACE_FUNCTION();
    if (RefuseInStreamMode("ChannelDisconnect"))
        return false;
    bool done = true;
    if (channelConnecting) {
        done = manager->channelApi.Disconnect();
        if (done)
            LOG_INFO("Channel.v1.Disconnect() [OK]\n");
        else
            LOG_ERROR("Channel.v1.Disconnect() failed\n");
    }
    OnChannelDisconnected();
    connectFailedEvent.Reset();
    return done;
}

void RPCPluginInstance::OnChannelConnected()
{
    channelConnected = true;
    connectFailedEvent.Reset();
}

void RPCPluginInstance::OnChannelDisconnected()
{
    FODR_TRACE_FUNCTION();
    bool attemptFailed = channelConnecting && !channelConnected;
    channelConnecting = false;
    channelConnected = false;
    if (attemptFailed) {
        connectFailedEvent.Set();
        OnConnectFailed();
    }
    if (dataObj.Get()) {
        dataObjConnected = false;
        ChannelObjDestroy(dataObjName, &dataObj);
    }
    if (controlObj.Get()) {
        controlObjConnected = false;
        ChannelObjDestroy(controlObjName, &controlObj);
    }
}

void RPCPluginInstance::ChannelControlObjCreate(const char *name)
{
    FODR_TRACE_FUNCTION();
    if (RefuseInStreamMode("ChannelControlObjCreate") || !name || !*name)
        return;
    std::snprintf(controlObjName, sizeof(controlObjName), "%s", name);
    LOG_DEBUG("Creating control object: %s\n", name);
    ChannelObjCreate(name, &manager->controlObjectSink, false, false, &controlObj);
}

void RPCPluginInstance::ChannelDataObjCreate(const char *name)
{
    FODR_TRACE_FUNCTION();
    if (RefuseInStreamMode("ChannelDataObjCreate") || !name || !*name)
        return;
    std::snprintf(dataObjName, sizeof(dataObjName), "%s", name);
    LOG_INFO("Creating data object: %s\n", name);
    ChannelObjCreate(name, &manager->dataObjectSink, manager->TcpEnabled(), manager->VchanEnabled(),
                     &dataObj);
}

uint32_t RPCPluginInstance::ObjectFlags(bool tcpSide, bool vchanSide)
{
    uint32_t flags = kFlagBase;
    if (SuppressObjectFlag4() == 0)
        flags |= kFlag4;
    bool bolt = manager->channelApi.GetSessionType() == SESSION_FLARE && manager->BoltSupported();
    bool flag8 = true;
    if (!manager->IsServer()) {
        if (bolt)
            flags |= ODP_OPTION_BOLT;
    } else if (tcpSide) {
        flags |= ODP_OPTION_TCP;
    } else if (vchanSide) {
        flags |= ODP_OPTION_VIRTUAL;
        if (bolt)
            flags |= ODP_OPTION_BOLT;
        flag8 = bolt;
    } else {
        flags |= ODP_OPTION_VIRTUAL | ODP_OPTION_TCP;
        flag8 = false;
    }
    if (flag8 && SuppressObjectFlag8() == 0)
        flags |= kFlag8;
    return flags;
}

bool RPCPluginInstance::ChannelObjCreate(const char *name, const ObjectSink *sink, bool tcpSide,
                                         bool vchanSide, HostHandle *handle)
{
    FODR_TRACE_FUNCTION();
    if (RefuseInStreamMode("ChannelObjCreate") || !handle)
        return false;
    if (handle->Get()) {
        LOG_ERROR("Channel object \"%s\" already created\n", name);
        return false;
    }
    tcpSideChannel = tcpSide;
    vchanSideChannel = vchanSide;
    uint32_t flags = ObjectFlags(tcpSide, vchanSide);
    if (!manager->objectApi.CreateObject(name, sink, this, flags, handle->Slot())) {
        handle->Clear();
        LOG_ERROR("Failed to create channel object \"%s\"\n", name);
        return false;
    }
    LOG_INFO("Channel object \"%s\" created with flags 0x%x\n", name, flags);
    return true;
}

bool RPCPluginInstance::ChannelObjDestroy(const char *name, HostHandle *handle)
{
    FODR_TRACE_FUNCTION();
    if (RefuseInStreamMode("ChannelObjDestroy"))
        return false;
    if (!handle) {
        LOG_ERROR("Null object handle in ChannelObjDestroy\n");
        return false;
    }
    bool done = true;
    if (void *object = handle->TakeForDestruction()) {
        done = manager->objectApi.DestroyObject(object);
        handle->Clear();
        if (done)
            LOG_INFO("Channel object \"%s\" destroyed\n", name);
        else
            LOG_ERROR("Failed to destroy channel object \"%s\"\n", name);
    }
    if (ready.exchange(false)) {
        readyEvent.Reset();
        OnNotReady();
    }
    return done;
}

void RPCPluginInstance::BecomeReadyIfBothConnected()
{
    if (!controlObjConnected || !dataObjConnected || ready.exchange(true))
        return;
    readyEvent.Set();
    OnReady();
}

void RPCPluginInstance::OnChannelControlObjConnected()
{
    controlObjConnected = true;
    BecomeReadyIfBothConnected();
}

void RPCPluginInstance::OnChannelControlObjDisconnected()
{
    controlObjConnected = false;
    ChannelObjDestroy(controlObjName, &controlObj);
}

void RPCPluginInstance::OnChannelDataObjConnected()
{
    dataObjConnected = true;
    BecomeReadyIfBothConnected();
}

void RPCPluginInstance::OnChannelDataObjDisconnected()
{
    dataObjConnected = false;
    ChannelObjDestroy(dataObjName, &dataObj);
}

} // namespace fodr
