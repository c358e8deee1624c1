#include "plugin/RPCManager.h"

#include "platform/Threads.h"
#include "plugin/RPCPluginInstance.h"
#include "runtime/LogCall.h"

#include <cstdio>

namespace fodr {

RPCManager::RPCManager(const char *token, const char *controlName, const char *dataName,
                       const char *dataTcpName)
{
    std::snprintf(tokenName, sizeof(tokenName), "%s", token);
    std::snprintf(controlObjName, sizeof(controlObjName), "%s", controlName);
    std::snprintf(dataObjName, sizeof(dataObjName), "%s", dataName);
    std::snprintf(dataObjTcpName, sizeof(dataObjTcpName), "%s", dataTcpName);
    serverSink = {1, NoThrow<OdpOnServerConnected>::Call, NoThrow<OdpOnServerDisconnected>::Call,
                  NoThrow<OdpOnServerInstanceCreated>::Call, NoThrow<OdpOnServerInstanceDestroyed>::Call};
    channelSink = {1, NoThrow<OnConnectionStateChanged>::Call, NoThrow<OnChannelStateChanged>::Call,
                   NoThrow<OnPeerChannelObjectCreated>::Call};
    controlObjectSink = {1, NoThrow<OnInvoke>::Call, NoThrow<OnChannelControlObjectStateChanged>::Call};
    dataObjectSink = {1, NoThrow<OnInvoke>::Call, NoThrow<OnChannelDataObjectStateChanged>::Call};
    messageSink = {1, NoThrow<OnMsgDone>::Call, NoThrow<OnMsgAbort>::Call};
}

RPCManager::~RPCManager() = default;

bool RPCManager::QueryHostInterface(uint16_t interfaceNumber, void *table) const
{
    FODR_TRACE_FUNCTION();
    if (!hostRecord.QueryInterface)
        return false;
    const OdpGuid identifier = ODP_GUID_INITIALIZER(interfaceNumber);
    return hostRecord.QueryInterface(&identifier, table);
}

bool RPCManager::QueryNewest(std::initializer_list<uint16_t> interfaceNumbers, void *table) const
{
    for (uint16_t number : interfaceNumbers) {
        if (QueryHostInterface(number, table))
            return true;
    }
    return false;
}

bool RPCManager::Init(bool asServer, const PluginHostRecord *record)
{
    FODR_TRACE_FUNCTION();
    // The record stays only when everything needed was found; what a failed attempt filled stays filled.
    hostRecord = *record;
    if (QueryAll(asServer)) {
        initThreadId = platform::CurrentThreadId();
        isServer = asServer;
        return true;
    }
    hostRecord = {};
    return false;
}

bool RPCManager::QueryAll(bool asServer)
{
    bool found = QueryNewest({ODP_SERVICE_CHANNEL_V3, ODP_SERVICE_CHANNEL_V2}, &channelApi);
    if (!found) {
        if (asServer)
            LOG_DEBUG("Failed to get ODPService_ChannelInterface_V2, streamData mode does not supported\n");
        found = QueryNewest({ODP_SERVICE_CHANNEL_V1}, &channelApi);
    }
    if (!found) {
        LOG_ERROR("Failed to get ODPService_ChannelInterface\n");
        return false;
    }
    if (!QueryNewest(
            {ODP_CHANNEL_OBJECT_V4, ODP_CHANNEL_OBJECT_V3, ODP_CHANNEL_OBJECT_V2, ODP_CHANNEL_OBJECT_V1},
            &objectApi)) {
        LOG_ERROR("Failed to get ODPRPC_ChannelObjectInterface\n");
        return false;
    }
    if (!QueryNewest({ODP_CHANNEL_CONTEXT_V2, ODP_CHANNEL_CONTEXT_V1}, &contextApi)) {
        LOG_ERROR("Failed to get ODPRPC_ChannelContextInterface\n");
        return false;
    }
    if (!QueryNewest({ODP_VARIANT}, &variantApi)) {
        LOG_ERROR("Failed to get ODPRPC_VariantInterface\n");
        return false;
    }
    if (!QueryNewest({ODP_STREAM_DATA_V2, ODP_STREAM_DATA_V1}, &streamDataApi)) {
        streamDataApi = {};
        LOG_WARN("Failed to get ODPRPC_StreamDataInterface\n");
    }
    if (!asServer) {
        if (!QueryNewest({ODP_OVERLAY_CLIENT_V2, ODP_OVERLAY_CLIENT_V1}, &overlayClientApi)) {
            LOG_ERROR("Failed to get ODPOverlay_ClientInterface\n");
            return false;
        }
        boltSupported = true;
        LOG_DEBUG("BOLT side channel %ssupported\n", "");
    } else {
        if (!QueryNewest({ODP_SERVICE_SERVER}, &serverApi))
            LOG_WARN("Failed to get ODPService_ServerInterface\n");
        if (!QueryNewest({ODP_OVERLAY_GUEST_V2, ODP_OVERLAY_GUEST_V1}, &overlayGuestApi)) {
            LOG_ERROR("Failed to get ODPOverlay_GuestInterface\n");
            return false;
        }
    }
    return true;
}

bool RPCManager::ODPPluginInit(const PluginHostRecord *record)
{
    OnPluginInit();
    ClientInit(record);
    return true;
}

void RPCManager::ClientInit(const PluginHostRecord *record)
{
    FODR_TRACE_FUNCTION();
    if (initialized) {
        LOG_ERROR("Already initialized\n");
        return;
    }
    if (!Init(false, record)) {
        LOG_ERROR("Init() failed\n");
        return;
    }
    if (!ConfigureTcpSideChan()) {
        LOG_ERROR("Error in configuring TcpSide Channel.\n");
        return;
    }
    if (!tcpEnabled && !ConfigureVirtualSideChan()) {
        LOG_ERROR("Error in configuring Virtual Side Channel.\n");
        return;
    }
    initialized = true;
    OnClientInit();
}

bool RPCManager::ODPPluginExit()
{
    FODR_TRACE_FUNCTION();
    LOG_INFO("Plugin with token %s is exiting.\n", tokenName);
    ClientExit();
    OnPluginExit();
    return true;
}

void RPCManager::ClientExit()
{
    FODR_TRACE_FUNCTION();
    if (!initialized) {
        LOG_ERROR("Not initialized\n");
        return;
    }
    initialized = false;
    initThreadId = 0;
    OnClientExit();
}

bool RPCManager::ODPPluginCreateInstance(void *channel, void **instance)
{
    FODR_TRACE_FUNCTION();
    if (!initialized) {
        LOG_WARN("Plugin is not initialized yet.\n");
        return false;
    }
    RPCPluginInstance *created = CreatePluginInstance();
    created->RegisterChannelSink(channel); // an instance without a sink is handed out all the same
    *instance = created;
    return true;
}

bool RPCManager::ODPPluginDestroyInstance(RPCPluginInstance *instance)
{
    FODR_TRACE_FUNCTION();
    instance->ChannelDisconnect();
    instance->UnregisterChannelSink();
    DestroyPluginInstance(instance);
    return true;
}

void RPCManager::DestroyPluginInstance(RPCPluginInstance *instance)
{
    delete instance;
}

std::string ConnectionStateName(int32_t state)
{
    switch (state) {
    case CONNECTION_UNINITIALIZED:
        return "UNINITIALIZED";
    case CONNECTION_DISCONNECTED:
        return "DISCONNECTED";
    case CONNECTION_PENDING:
        return "PENDING";
    case CONNECTION_CONNECTED:
        return "CONNECTED";
    default:
        return "unknown[" + std::to_string(state) + "]";
    }
}

std::string ObjectStateName(int32_t state)
{
    switch (state) {
    case OBJECT_SIDE_CHANNEL_PENDING:
        return "SIDE_CHANNEL_PENDING";
    case OBJECT_SIDE_CHANNEL_CONNECTED:
        return "SIDE_CHANNEL_CONNECTED";
    case OBJECT_PENDING_AND_PEER_OBJ_CREATED:
        return "PENDING_AND_PEER_OBJ_CREATED";
    case OBJECT_UNINITIALIZED:
    case OBJECT_DISCONNECTED:
    case OBJECT_PENDING:
    case OBJECT_CONNECTED:
        return ConnectionStateName(state); // the four that objects share with connections
    default:
        return "unknown" + std::to_string(state);
    }
}

std::string SessionTypeName(int32_t type)
{
    switch (type) {
    case SESSION_NONE:
        return "NONE SESSION";
    case SESSION_PCOIP:
        return "PCOIP SESSION";
    case SESSION_FLARE:
        return "FLARE SESSION";
    default:
        return "unknown " + std::to_string(type);
    }
}

// ---- The server half, which a client carries and never enters ----

namespace {

struct ServerManagers {
    OVMutex lock;
    std::map<void *, RCPtr<RPCManager>> byServerId GUARDED_BY(lock);
};

ServerManagers &GetServerManagers()
{
    static ServerManagers managers;
    return managers;
}

} // namespace

RPCPluginInstance *RPCManager::CreateServerInstance()
{
    return new RPCPluginInstance(this);
}

void RPCManager::DestroyServerInstance(void * /*serverId*/, RCPtr<RPCPluginInstance> instance)
{
    instance = nullptr;
}

void RPCManager::OnServerConnected(int32_t sessionType, void *serverId)
{
    LOG_INFO("%s server [%p] connected.", SessionTypeName(sessionType).c_str(), serverId);
}

void RPCManager::OnServerDisconnected(void *serverId)
{
    LOG_INFO("Server [%p] disconnected.", serverId);
}

RCPtr<RPCManager> RPCManager::GetRPCManagerByServerId(void *serverId)
{
    FODR_TRACE_FUNCTION();
    ServerManagers &managers = GetServerManagers();
    OVMutexLock lock(managers.lock);
    auto found = managers.byServerId.find(serverId);
    if (found != managers.byServerId.end())
        return found->second;
    LOG_WARN("Cannot find server %p.\n", serverId);
    return nullptr;
}

void RPCManager::OdpOnServerConnected(void *manager, int32_t sessionType, void *serverId)
{
    FODR_TRACE_FUNCTION();
    if (!manager)
        return;
    auto *self = static_cast<RPCManager *>(manager);
    {
        ServerManagers &managers = GetServerManagers();
        OVMutexLock lock(managers.lock);
        managers.byServerId[serverId] = self;
    }
    self->OnServerConnected(sessionType, serverId);
}

void RPCManager::OdpOnServerDisconnected(void *manager, void *serverId)
{
    FODR_TRACE_FUNCTION();
    RCPtr<RPCManager> found;
    {
        ServerManagers &managers = GetServerManagers();
        OVMutexLock lock(managers.lock);
        auto entry = managers.byServerId.find(serverId);
        if (entry != managers.byServerId.end())
            found = entry->second;
    }
    if (found)
        found->OnServerDisconnected(serverId);
    else
        LOG_WARN("Cannot find server %p userData %p\n", serverId, manager);
}

bool RPCManager::StoreServerInstance(void *serverId, RPCPluginInstance *instance)
{
    FODR_TRACE_FUNCTION();
    void *channel = serverApi.GetServerChannel ? serverApi.GetServerChannel(serverId) : nullptr;
    OVMutexLock lock(instanceLock);
    instances[serverId] = instance;
    instance->serverId = serverId;
    return channel && instance->RegisterChannelSink(channel);
}

RCPtr<RPCPluginInstance> RPCManager::TakeServerInstance(void *serverId)
{
    FODR_TRACE_FUNCTION();
    OVMutexLock lock(instanceLock);
    auto entry = instances.find(serverId);
    if (entry == instances.end())
        return nullptr;
    RCPtr<RPCPluginInstance> taken = entry->second;
    instances.erase(entry);
    return taken;
}

bool RPCManager::OdpOnServerInstanceCreated(void * /*unused*/, void *serverId, void **instance)
{
    FODR_TRACE_FUNCTION();
    RCPtr<RPCManager> manager = GetRPCManagerByServerId(serverId);
    if (!manager)
        return false;
    RPCPluginInstance *created = manager->CreateServerInstance();
    if (!created || !manager->StoreServerInstance(serverId, created))
        return false;
    *instance = created;
    return true;
}

void RPCManager::OdpOnServerInstanceDestroyed(void * /*unused*/, void * /*instance*/, void *serverId)
{
    FODR_TRACE_FUNCTION();
    RCPtr<RPCManager> manager = GetRPCManagerByServerId(serverId);
    if (!manager)
        return;
    if (RCPtr<RPCPluginInstance> instance = manager->TakeServerInstance(serverId)) {
        instance->ChannelDisconnect();
        instance->UnregisterChannelSink();
        manager->DestroyServerInstance(serverId, instance);
    }
    ServerManagers &managers = GetServerManagers();
    OVMutexLock lock(managers.lock);
    managers.byServerId.erase(serverId);
}

} // namespace fodr
