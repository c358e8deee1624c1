// The plug-in's end of the host boundary: obtains the host's interfaces, decides which side channels it will
// accept, and routes every connection, channel and object notice to the RPCPluginInstance it belongs to.
//
// Two roles share the class. This system runs in the client role; the server half is carried, but its table
// of notices is never handed to a host.
//
// Threads: notices arrive on the host's threads. Only the server maps are locked (instanceLock here, the
// process-wide lock of serverManagers in RPCManager.cpp; never both, and not across a virtual operation).
#pragma once

#include "odpservice/odpservice.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <map>
#include <string>

namespace fodr {

class RPCPluginInstance;

class RPCManager : public RCObject {
public:
    // The four names are kept in bounded buffers and cut to fit (59 and 63 bytes).
    RPCManager(const char *token, const char *controlName, const char *dataName, const char *dataTcpName);
    ~RPCManager() override;

    // The five calls of the host. All give true, whatever happened, except that no instance is made before a
    // good initialisation.
    virtual bool ODPPluginInit(const PluginHostRecord *record);
    virtual bool ODPPluginExit();
    virtual bool ODPPluginCreateInstance(void *channel, void **instance);
    virtual bool ODPPluginDestroyInstance(RPCPluginInstance *instance);

    virtual RPCPluginInstance *CreatePluginInstance() = 0;
    virtual RPCPluginInstance *CreateServerInstance();
    virtual void DestroyPluginInstance(RPCPluginInstance *instance);
    virtual void DestroyServerInstance(void *serverId, RCPtr<RPCPluginInstance> instance);
    virtual bool OnPluginInit() { return false; } // results of both hooks are ignored
    virtual bool OnPluginExit() { return false; }
    virtual void OnClientInit() {}
    virtual void OnClientExit() {}
    virtual void OnServerConnected(int32_t sessionType, void *serverId);
    virtual void OnServerDisconnected(void *serverId);
    virtual bool ConfigureTcpSideChan();
    virtual bool ConfigureVirtualSideChan();
    virtual void ConfigureSidechannelType(int32_t sessionType);

    // Fills `table` from the host; false without a host record or when the host refuses.
    bool QueryHostInterface(uint16_t interfaceNumber, void *table) const;

    bool IsServer() const { return isServer; }
    bool IsInitialized() const { return initialized; }
    bool TcpEnabled() const { return tcpEnabled; }
    bool VchanEnabled() const { return vchanEnabled; }
    bool BoltSupported() const { return boltSupported; }
    const char *TokenName() const { return tokenName; }

    // What the host gave, and what the plug-in gives the host. Fixed after Init and construction.
    ODPService_ServerInterface serverApi{};
    ODPService_ChannelInterface channelApi{};
    ODPRPC_ChannelObjectInterface objectApi{};
    ODPRPC_ChannelContextInterface contextApi{};
    ODPRPC_VariantInterface variantApi{};
    ODPOverlay_GuestInterface overlayGuestApi{};
    ODPOverlay_ClientInterface overlayClientApi{};
    ODPRPC_StreamDataInterface streamDataApi{};

    ServerSink serverSink{};
    ChannelSink channelSink{};
    ObjectSink controlObjectSink{};
    ObjectSink dataObjectSink{};
    MessageSink messageSink{};

    // Notices of the host; `instance` is the RPCPluginInstance given with the table.
    static void OnConnectionStateChanged(void *instance, int32_t current, int32_t reported);
    static void OnChannelStateChanged(void *instance, int32_t current, int32_t reported);
    static void OnPeerChannelObjectCreated(void *instance, const char *name);
    static void OnInvoke(void *instance, void *context);
    static void OnChannelControlObjectStateChanged(void *instance);
    static void OnChannelDataObjectStateChanged(void *instance);
    static void OnMsgDone(void *instance, uint32_t requestId, void *context);
    static void OnMsgAbort(void *instance, uint32_t requestId, uint8_t userCancel, uint32_t reason);

    static void OdpOnServerConnected(void *manager, int32_t sessionType, void *serverId);
    static void OdpOnServerDisconnected(void *manager, void *serverId);
    static bool OdpOnServerInstanceCreated(void *unused, void *serverId, void **instance);
    static void OdpOnServerInstanceDestroyed(void *unused, void *instance, void *serverId);
    static RCPtr<RPCManager> GetRPCManagerByServerId(void *serverId);

private:
    bool Init(bool asServer, const PluginHostRecord *record);
    bool QueryAll(bool asServer);
    bool QueryNewest(std::initializer_list<uint16_t> interfaceNumbers, void *table) const;
    void ClientInit(const PluginHostRecord *record);
    void ClientExit();
    std::string SettingPath(const char *valueName) const;
    void OnDataObjectConnected(RPCPluginInstance *instance);
    void RequestSideChannel(RPCPluginInstance *instance, int32_t type);
    void ChooseByAgent(RPCPluginInstance *instance, uint32_t options, bool boltAllowed);
    void ChooseBySettings(RPCPluginInstance *instance, uint32_t options, bool boltAllowed);
    bool StoreServerInstance(void *serverId, RPCPluginInstance *instance);
    RCPtr<RPCPluginInstance> TakeServerInstance(void *serverId);

    bool isServer = false;
    bool initialized = false;
    uint32_t initThreadId = 0;
    char tokenName[60] = {};
    char controlObjName[64] = {};
    char dataObjName[64] = {};
    char dataObjTcpName[64] = {};
    PluginHostRecord hostRecord{}; // empty after a failed Init
    OVMutex instanceLock;
    std::map<void *, RCPtr<RPCPluginInstance>> instances GUARDED_BY(instanceLock);
    bool tcpEnabled = false;
    bool tcpConfigured = false;
    bool boltSupported = false;
    bool vchanEnabled = false;
};

// Names of states and session types in log lines.
std::string ConnectionStateName(int32_t state);
std::string ObjectStateName(int32_t state);
std::string SessionTypeName(int32_t type);

} // namespace fodr
