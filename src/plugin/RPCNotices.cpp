// RPCManager: the notices of connection, channel and objects.
#include "plugin/RPCManager.h"
#include "plugin/RPCPluginInstance.h"
#include "runtime/LogCall.h"

#include <atomic>
#include <cstring>

namespace fodr {

namespace {

// Written at each channel notice, as a mark for debuggers.
std::atomic<int32_t> currentSessionType{SESSION_NONE};

RPCPluginInstance *InstanceOf(void *userData)
{
    return static_cast<RPCPluginInstance *>(userData);
}

// A late notice may tell of an object that is gone by now.
int32_t StateOf(const RPCManager &manager, const HostHandle &object)
{
    void *handle = object.Get();
    return handle ? manager.objectApi.GetObjectState(handle) : OBJECT_DISCONNECTED;
}

} // namespace

void RPCManager::OnConnectionStateChanged(void *userData, int32_t current, int32_t reported)
{
    FODR_TRACE_FUNCTION();
    RPCPluginInstance *instance = InstanceOf(userData);
    LOG_INFO("Connection is now %s\n", ConnectionStateName(reported).c_str());
    if (current != reported)
        LOG_INFO("   but the current state is %s\n", ConnectionStateName(current).c_str());
    switch (current) {
    case CONNECTION_DISCONNECTED:
        instance->ChannelDisconnect();
        break;
    case CONNECTION_CONNECTED:
        if (instance->discardConnection)
            LOG_WARN("New connection discarded by request.\n");
        else
            instance->ChannelConnect();
        break;
    default:
        LOG_ERROR("State %s is not handled\n", ConnectionStateName(current).c_str());
    }
}

// Unlike the connection notice this one acts on the state it reports, not on the current one.
void RPCManager::OnChannelStateChanged(void *userData, int32_t current, int32_t reported)
{
    FODR_TRACE_FUNCTION();
    RPCPluginInstance *instance = InstanceOf(userData);
    RPCManager *manager = instance->manager;
    LOG_INFO("Channel is now %s\n", ConnectionStateName(reported).c_str());
    if (current != reported)
        LOG_ERROR("   but the current state is %s\n", ConnectionStateName(current).c_str());
    switch (reported) {
    case CONNECTION_DISCONNECTED:
        currentSessionType = SESSION_NONE;
        instance->OnChannelDisconnected();
        break;
    case CONNECTION_CONNECTED: {
        int32_t session = manager->channelApi.GetSessionType();
        currentSessionType = session;
        manager->ConfigureSidechannelType(session);
        LOG_DEBUG("Set session type of the channel to %s\n", SessionTypeName(session).c_str());
        instance->OnChannelConnected();
        break;
    }
    default:
        LOG_ERROR("State %s is not handled.\n", ConnectionStateName(reported).c_str());
    }
    if (manager->isServer && current == CONNECTION_CONNECTED && reported == CONNECTION_CONNECTED) {
        LOG_INFO("Channel connect, creating channel objects.\n");
        instance->ChannelControlObjCreate(manager->controlObjName);
    }
}

void RPCManager::OnPeerChannelObjectCreated(void *userData, const char *name)
{
    FODR_TRACE_FUNCTION();
    RPCPluginInstance *instance = InstanceOf(userData);
    RPCManager *manager = instance->manager;
    LOG_INFO("Peer channel object \"%s\" created\n", name ? name : "");
    if (manager->isServer || !name)
        return;
    if (std::strcmp(name, manager->controlObjName) == 0)
        instance->ChannelControlObjCreate(manager->controlObjName);
    else if (std::strcmp(name, manager->dataObjName) == 0 || std::strcmp(name, manager->dataObjTcpName) == 0)
        instance->ChannelDataObjCreate(name);
}

void RPCManager::OnInvoke(void *userData, void *context)
{
    InstanceOf(userData)->OnInvoke(context);
}

void RPCManager::OnMsgDone(void *userData, uint32_t requestId, void *context)
{
    InstanceOf(userData)->HandleMsgDone(requestId, context);
}

void RPCManager::OnMsgAbort(void *userData, uint32_t requestId, uint8_t userCancel, uint32_t reason)
{
    InstanceOf(userData)->HandleMsgAbort(requestId, userCancel, reason);
}

void RPCManager::OnChannelControlObjectStateChanged(void *userData)
{
    FODR_TRACE_FUNCTION();
    RPCPluginInstance *instance = InstanceOf(userData);
    RPCManager *manager = instance->manager;
    int32_t state = StateOf(*manager, instance->controlObj);
    LOG_INFO("Channel object \"%s\" is now %s\n", instance->controlObjName, ObjectStateName(state).c_str());
    switch (state) {
    case OBJECT_DISCONNECTED:
        instance->OnChannelControlObjDisconnected();
        break;
    case OBJECT_CONNECTED:
        instance->OnChannelControlObjConnected();
        if (manager->isServer)
            instance->ChannelDataObjCreate(manager->tcpEnabled ? manager->dataObjTcpName
                                                               : manager->dataObjName);
        break;
    default:
        LOG_ERROR("State %s is not handled.\n", ObjectStateName(state).c_str());
    }
}

void RPCManager::OnChannelDataObjectStateChanged(void *userData)
{
    FODR_TRACE_FUNCTION();
    RPCPluginInstance *instance = InstanceOf(userData);
    RPCManager *manager = instance->manager;
    int32_t state = StateOf(*manager, instance->dataObj);
    LOG_INFO("Channel object \"%s\" is now %s\n", instance->dataObjName, ObjectStateName(state).c_str());
    switch (state) {
    case OBJECT_DISCONNECTED:
        instance->OnChannelDataObjDisconnected();
        break;
    case OBJECT_CONNECTED:
        manager->OnDataObjectConnected(instance);
        break;
    case OBJECT_SIDE_CHANNEL_PENDING:
        instance->sideChannelPending = true;
        break;
    case OBJECT_SIDE_CHANNEL_CONNECTED:
        if (instance->sideChannelPending) {
            instance->OnChannelDataObjConnected();
            instance->sideChannelPending = false;
        } else {
            LOG_INFO("Side channel was not pending when connected was received.\n");
        }
        break;
    default:
        LOG_ERROR("State %s is not handled.\n", ObjectStateName(state).c_str());
    }
}

} // namespace fodr
