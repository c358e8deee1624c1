// RPCManager: the notices of connection, channel and objects, and the choice of a side channel.
#include "lib/unicode/CaseFolding.h"
#include "plugin/RPCManager.h"
#include "plugin/RPCPluginInstance.h"
#include "runtime/LogCall.h"
#include "runtime/OVRegKey.h"

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

// ---- Which side channel carries the data object ----

namespace {

bool StartsWithIgnoreCase(const std::string &text, const char *prefix)
{
    return AsciiCompareNoCase(text.c_str(), prefix, std::strlen(prefix)) == 0;
}

} // namespace

std::string RPCManager::SettingPath(const char *valueName) const
{
    return std::string("HKLM\\Software\\Orvane, Inc.\\") +
           (isServer ? "Orvane " : "Orvane ODPService\\Plugins\\") + tokenName + "\\" + valueName;
}

// Only as many letters as the word has are compared: "trueish" switches the side channel on.
bool RPCManager::ConfigureTcpSideChan()
{
    FODR_TRACE_FUNCTION();
    std::string path = SettingPath("tcpEnabled");
    std::string value = ReadRegistryString(path);
    LOG_INFO("Checking tcp side at \"%s\"\n", path.c_str());
    if (StartsWithIgnoreCase(value, "true")) {
        tcpEnabled = true;
        tcpConfigured = true;
        LOG_INFO("tcp side channel is enabled\n");
    } else if (StartsWithIgnoreCase(value, "false")) {
        tcpEnabled = false;
        tcpConfigured = true;
        LOG_INFO("tcp side channel is disabled\n");
    } else {
        LOG_INFO("tcp side channel is %sabled (by default)\n", tcpEnabled ? "en" : "dis");
    }
    return true;
}

// Unlike the TCP value this one is compared whole.
bool RPCManager::ConfigureVirtualSideChan()
{
    FODR_TRACE_FUNCTION();
    std::string path = SettingPath("vchanSideChannelEnabled");
    std::string value = ReadRegistryString(path);
    LOG_INFO("Checking Virtual side channel at \"%s\"\n", path.c_str());
    if (AsciiEqualsNoCase(value, "true")) {
        vchanEnabled = true;
        LOG_INFO("Virtual side channel is enabled.\n");
    } else if (AsciiEqualsNoCase(value, "false")) {
        vchanEnabled = false;
        LOG_INFO("Virtual side channel is disabled.\n");
    } else {
        LOG_INFO("Virtual side channel is %sabled (by default)\n", vchanEnabled ? "en" : "dis");
    }
    return true;
}

void RPCManager::ConfigureSidechannelType(int32_t sessionType)
{
    FODR_TRACE_FUNCTION();
    if (!isServer)
        return;
    std::string value = ReadRegistryString(SettingPath("sideChannelType"));
    if (StartsWithIgnoreCase(value, "none")) {
        tcpEnabled = false;
        vchanEnabled = false;
    } else if (StartsWithIgnoreCase(value, "pcoip")) {
        tcpEnabled = sessionType != SESSION_PCOIP;
        vchanEnabled = sessionType == SESSION_PCOIP;
    } else if (StartsWithIgnoreCase(value, "vchan")) {
        tcpEnabled = false;
        vchanEnabled = true;
    } else if (StartsWithIgnoreCase(value, "tcp")) {
        tcpEnabled = true;
        vchanEnabled = false;
    } else {
        bool bolt = StartsWithIgnoreCase(value, "bolt");
        bool named = bolt || StartsWithIgnoreCase(value, "ovc");
        if (named || (!tcpConfigured && std::strcmp(tokenName, "fodr") == 0)) {
            tcpEnabled = sessionType != SESSION_FLARE;
            vchanEnabled = sessionType == SESSION_FLARE;
            if (sessionType == SESSION_FLARE)
                boltSupported = bolt;
        }
    }
    LOG_INFO("Sidechannel tcp:%sabled vchan:%sabled bolt:%spreferred.\n", tcpEnabled ? "en" : "dis",
             vchanEnabled ? "en" : "dis", boltSupported ? "" : "not ");
}

void RPCManager::OnDataObjectConnected(RPCPluginInstance *instance)
{
    FODR_TRACE_FUNCTION();
    uint32_t options = 0;
    bool boltAllowed = false;
    if (objectApi.GetObjectOptions) {
        uint32_t given = 0;
        if (objectApi.GetObjectOptions(instance->dataObj.Get(), &given)) {
            LOG_DEBUG("DataObj options = 0x%08x\n", given);
            if ((given & ODP_OPTION_BOLT) && channelApi.GetSessionType() == SESSION_FLARE)
                boltAllowed = boltSupported;
            options = given & ODP_OPTION_SIDE_CHANNEL_MASK;
        } else {
            LOG_WARN("Obtain DataObj options failed \n");
        }
    }
    constexpr uint32_t kNoSideChannel = ODP_OPTION_VIRTUAL | ODP_OPTION_TCP;
    if ((options & kNoSideChannel) == kNoSideChannel)
        instance->OnChannelDataObjConnected();
    else if (!isServer && options != 0)
        ChooseByAgent(instance, options, boltAllowed);
    else
        ChooseBySettings(instance, options, boltAllowed);
}

// CONNECTED while a side channel is pending says that it failed. The instance then stays not ready and the
// flag set: a side channel that failed isn't replaced by the main channel.
void RPCManager::ChooseByAgent(RPCPluginInstance *instance, uint32_t options, bool boltAllowed)
{
    FODR_TRACE_FUNCTION();
    if (instance->sideChannelPending) {
        LOG_ERROR("Side channel request failed.\n");
        return;
    }
    if (options & ODP_OPTION_VIRTUAL) {
        if (boltAllowed)
            LOG_INFO("Requesting BOLT side channel.\n");
        else
            LOG_INFO("Requesting virtual side channel.\n");
        RequestSideChannel(instance, boltAllowed ? SIDE_CHANNEL_BOLT : SIDE_CHANNEL_VIRTUAL);
    } else {
        LOG_INFO("Requesting tcp side channel.\n");
        RequestSideChannel(instance, SIDE_CHANNEL_TCP);
    }
}

void RPCManager::ChooseBySettings(RPCPluginInstance *instance, uint32_t options, bool boltAllowed)
{
    FODR_TRACE_FUNCTION();
    LOG_DEBUG("Determine sc[0x%08x] type by itself.\n", options);
    if (instance->tcpSideChannel) {
        if (instance->sideChannelPending) {
            LOG_ERROR("TCP Side channel request failed.\n");
            return;
        }
        LOG_INFO("Requesting TCP side channel.\n");
        RequestSideChannel(instance, SIDE_CHANNEL_TCP);
    } else if (instance->vchanSideChannel) {
        if (instance->sideChannelPending) {
            LOG_ERROR("Virtual Side channel request failed.\n");
            return;
        }
        if (boltAllowed)
            LOG_INFO("Requesting BOLT side channel.\n");
        else
            LOG_INFO("Requesting virtual side channel.\n");
        RequestSideChannel(instance, boltAllowed ? SIDE_CHANNEL_BOLT : SIDE_CHANNEL_VIRTUAL);
    } else {
        instance->OnChannelDataObjConnected();
    }
}

void RPCManager::RequestSideChannel(RPCPluginInstance *instance, int32_t type)
{
    objectApi.RequestSideChannel(instance->dataObj.Get(), type, tokenName);
}

} // namespace fodr
