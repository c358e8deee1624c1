// The client end of the drive-redirection protocol, one for each connection: the handshake with the agent,
// the agent's policy, the table of shares and their announcement, the way of I/O requests to their share.
//
// Threads. Every packet is handled on a pool thread of its own, in no order and with any number at once, so
// what the handshake has come to rests on four facts (serverVersion, policy, storedPolicyStream,
// userLoggedOn) and not on an order of arrival. Folder commands come on the host's threads, drive events on
// the watcher's.
//
// Locks, in the order in which they nest: stateLock, watcherLock, the table's, the policy's lock. Each is
// taken alone as well. Facts that are read without stateLock are atomic, and hold for the moment of the read.
#pragma once

#include "drives/DriveWatcher.h"
#include "lib/misc/Mutex.h"
#include "rdpdr/ClientPolicy.h"
#include "rdpdr/DataHandler.h"
#include "rdpdr/PacketAccounts.h"
#include "rdpdr/ShareTable.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace fodr {

class FodrLogger;
class IRdpdrChannel;

class RdpdrChannelManager : public IDeviceStateSubscriber {
public:
    // How many shares there may be for an agent's policy to add another.
    static constexpr size_t kMostForPolicy = 512;

    RdpdrChannelManager();
    ~RdpdrChannelManager() override;
    RdpdrChannelManager(const RdpdrChannelManager &) = delete;
    RdpdrChannelManager &operator=(const RdpdrChannelManager &) = delete;

    // Both outlive Shutdown; the trace may be null. Always true.
    virtual bool Initialize(IRdpdrChannel *packetChannel, FodrLogger *trace);
    // Stops the watcher, closes every file without telling the agent, lets the queued packets run to their
    // end and forgets channel and policy. The sources of packets and commands are stopped before. May be
    // called again.
    virtual void Shutdown() EXCLUDES(stateLock, watcherLock);

    // Queues one whole packet. Waits while as much is queued as may be (PacketBudget). True takes the stream
    // over.
    virtual bool OnDataReceived(RdpdrStream *stream);
    // Handles one packet on the calling thread; the stream stays with the caller. False only for a component
    // that isn't ours. A device request that waits for something holds the thread.
    bool ProcessData(RdpdrStream *stream) EXCLUDES(stateLock);

    // The protocol version of this client.
    virtual int GetClientVersion();

    // Adds a share and, if its folder is there, announces it. The outcome reaches the caller as a status text
    // under the cookie, and that of an announced share only with the agent's reply. A `driveLetterShare`
    // stays until the end; `permission` 0 stands for the policy's default; an empty `shareName` lets the path
    // name the share. True when the share is in the table afterwards.
    virtual bool AddSharedFolder(const std::string &path, const std::string &cookie, bool driveLetterShare,
                                 uint32_t permission, const std::string &shareName,
                                 const std::vector<std::string> &allowList) EXCLUDES(watcherLock);
    virtual bool AddSharedFolder(const std::string &path, const std::string &cookie, bool driveLetterShare,
                                 uint32_t permission, const std::string &shareName);
    // Takes the shares of the folder out of the table and tells the agent. True when there was one.
    virtual bool RemoveSharedFolder(const std::string &path, const std::string &shareName,
                                    const std::string &cookie) EXCLUDES(watcherLock);
    // Shares every drive there is, if the settings don't say otherwise.
    virtual void RedirectAllDrives();

    bool OnDeviceAvailable(char driveLetter) override;
    bool OnDeviceUnavailable(char driveLetter) override;

    // Whether a share of this name shows only named files.
    static bool NeedsAccessControl(const std::string &shareName);

private:
    using Device = ShareTable::Device;

    // Dispatch.
    static void ProcessDataTask(void *record);
    void ProcessPrivatePacket(uint16_t packetId, RdpdrStream *stream) REQUIRES(stateLock);
    void HandleUserLoggedOn() REQUIRES(stateLock);
    void HandleDeviceIoRequest(RdpdrStream *stream);
    void HandleDeviceReply(RdpdrStream *stream);
    void CloseAllDevices();

    // Handshake.
    void HandleServerAnnounce(RdpdrStream *stream);
    void HandleServerCapability();
    void SendFodrClientVersion();
    bool SendClientName();
    void HandleVersionExchange(RdpdrStream *stream) REQUIRES(stateLock);
    void HandlePolicyStream() REQUIRES(stateLock);
    bool HandleFodrPolicy(RdpdrStream *stream) REQUIRES(stateLock);
    void SetPolicyStream(const RdpdrStream *stream) REQUIRES(stateLock);
    void OnUserReady() REQUIRES(stateLock);
    std::string CapabilityStatus() REQUIRES(stateLock);

    // Where shares come from, beside the commands.
    void AddDrives(uint32_t permission);
    void RedirectDevicesFromRegKey();
    void AddPolicyFolders() REQUIRES(stateLock);

    // Adding.
    bool ShouldApplyCDRPolicy(SharedType type);
    bool IsAllowedByCDRPolicy(const std::string &path, uint32_t permission, SharedType type);
    RedirectedDeviceSettings SettingsFor(const ShareTable::Request &request, bool driveLetterShare,
                                         bool policyApplies);

    // Removing, and the watcher.
    void StartDriveWatcher(bool firstShare) EXCLUDES(watcherLock);
    void StopDriveWatcherIfUnused() EXCLUDES(watcherLock);

    // What goes out. SendSimpleDevice gives 0 when there is no memory, else 1.
    void AnnounceShare(const IRedirectedDevice &device, bool exists, const std::string &cookie);
    int SendSimpleDevice(uint32_t deviceId, uint32_t deviceType, const std::string &friendlyName);
    void SendDeviceRemove(uint32_t deviceId);
    void Write(RdpdrStream *packet);
    void Notify(const char *cookie, const std::string &message);

    IRdpdrChannel *channel = nullptr;
    FodrLogger *packetTrace = nullptr;
    int32_t clientVersion;
    std::atomic<int32_t> serverVersion{0}; // 0: not known yet
    std::atomic<bool> multiEntryDirectoryQuery{false};
    std::atomic<bool> readOnly{false}; // never cleared
    std::atomic<bool> preReadEnabled{false};
    ShareTable shares;
    OVMutex watcherLock; // makes the watcher run just while there are shares
    std::unique_ptr<IDriveWatcher> driveWatcher GUARDED_BY(watcherLock);
    PacketBudget packetBudget; // of the packets in dataHandler
    std::unique_ptr<IThreadPoolDataHandler> dataHandler;
    std::atomic<ClientPolicy *> policy{nullptr};             // owned; made once, under stateLock
    RdpdrStreamPtr storedPolicyStream GUARDED_BY(stateLock); // came before the version
    bool userLoggedOn GUARDED_BY(stateLock) = false;         // never cleared
    OVMutex stateLock; // held while a handshake packet is handled, the shares it adds included
    std::atomic<bool> driveLetterMappingDisabled{true};
};

} // namespace fodr
