// The agent's end of the drive-redirection protocol: handshake, policy, the table of shares, requests.
//
// Any thread may submit requests. The observer is called on a reader thread and may submit from there.
#pragma once

#include "agent/AgentChannel.h"
#include "agent/RequestTable.h"
#include "rdpdr/wire/IoRecords.h"

#include <atomic>
#include <condition_variable>
#include <map>
#include <string>
#include <thread>

namespace fodr::agent {

// A share, as it was announced.
struct RemoteDevice {
    uint32_t id = 0;
    uint8_t permission = 0;
    std::string name;    // UTF-8
    std::string dosName; // at most 7 bytes
    std::string path;    // with drive letter mapping: where it is on the other side

    // The plug-in makes every share read-only when it sees these; here the share is.
    bool IsReadOnly() const { return permission == 1 || permission == 2; }
    // A drag-and-drop or copy-paste share: its root can't be listed by several queries at once.
    bool IsTagged() const { return name.starts_with("(OVDND)") || name.starts_with("(OVFCP)"); }
};

class IClientObserver {
public:
    // The handshake is over: shares may come.
    virtual void OnReady() {}
    virtual void OnDeviceAdded(const RemoteDevice &device) = 0;
    // Its requests have failed with STATUS_DEVICE_REMOVED.
    virtual void OnDeviceRemoved(uint32_t deviceId) = 0;
    // The host wants the agent to finish; requests are still served.
    virtual void OnGoodbye(const std::string &reason) = 0;
    // The last call. All requests have failed.
    virtual void OnEnded(ChannelEnd end, const std::string &reason) = 0;

protected:
    ~IClientObserver() = default;
};

class RdpdrClient final : private IPacketReceiver {
public:
    // `clientObserver` outlives the client.
    RdpdrClient(std::unique_ptr<platform::ByteStream> stream, const ClientOptions &clientOptions,
                IClientObserver *clientObserver);
    // Closes, fails what is in flight and waits for the observer's calls.
    ~RdpdrClient();

    void Start();

    // Sends one request and its payload, both borrowed for the call; the CompletionId is filled in here.
    // The handler gets its outcome, which may be before this returns.
    void Submit(DR_DEVICE_IOREQUEST request, ByteSpan payload, const RequestTable::Expected &expected,
                IoHandler handler);

    bool ListsSeveral() const { return options.multiEntryDirectoryQuery; }
    AgentChannel &Channel() { return channel; }
    const RequestTable &Requests() const { return requests; }
    // One step of the time that requests are given; the client's own clock makes one a second while any wait.
    void Tick() { requests.Tick(options.ioTimeoutSeconds); }

private:
    void OnChannelReady() override;
    void OnPacket(ByteSpan packet) override;
    void OnGoodbyeAsked(const std::string &reason) override;
    void OnChannelEnded(ChannelEnd end, const std::string &reason) override;

    void OnCorePacket(uint16_t packetId, ByteSpan packet);
    void OnClientIdConfirm(ByteSpan packet);
    void OnVersionExchange(ByteSpan packet);
    void OnDeviceAnnounce(ByteSpan packet);
    void OnDeviceRemove(ByteSpan packet);
    void AddDevice(RemoteDevice device);
    void SendRest();
    void CloseOrphan(uint32_t deviceId, uint32_t fileId);
    void ClockMain();
    template <wire::Record Packet> void SendRecord(const Packet &packet);

    const ClientOptions options;
    IClientObserver *const observer;
    RequestTable requests;
    uint32_t clientId;

    transport::Mutex lock;
    bool confirmed GUARDED_BY(lock) = false;
    std::map<uint32_t, RemoteDevice> devices GUARDED_BY(lock);
    bool stopping GUARDED_BY(lock) = false;
    std::condition_variable_any clockWakeup;
    std::atomic<bool> clockSleeps{false}; // until a request wants it
    std::thread clock;
    AgentChannel channel; // last: its threads end before the rest goes
};

} // namespace fodr::agent
