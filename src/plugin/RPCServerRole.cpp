// RPCManager: the server half, which a client carries and never enters.
#include "plugin/RPCManager.h"
#include "plugin/RPCPluginInstance.h"
#include "runtime/LogCall.h"

namespace fodr {

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
