// The agent's end of the drive-redirection protocol: handshake, policy, the table of shares, requests.
//
// Any thread may submit requests. The observer is called on a reader thread and may submit from there.
#pragma once

#include "agent/AgentChannel.h"
#include "agent/RequestTable.h"
#include "lib/misc/Mutex.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

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
    // True: it can be used now. Else Accept says so, until when whoever added it waits.
    virtual bool OnDeviceAdded(const RemoteDevice &device) = 0;
    // Its requests have failed with STATUS_DEVICE_REMOVED.
    virtual void OnDeviceRemoved(uint32_t deviceId) = 0;
    // The host wants the agent to finish; requests are still served.
    virtual void OnGoodbye(const std::string &reason) = 0;
    // A share of an earlier connection is there again, with its number. Not told of one that hasn't been
    // accepted yet.
    virtual void OnDeviceBack(const RemoteDevice &) {}
    // The connection is lost, and Reconnect may give another. What can wait does.
    virtual void OnLost(ChannelEnd /*end*/, const std::string & /*reason*/) {}
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

    // With options.outlivesConnections, from now on a loss isn't the end: OnLost is told, not OnEnded. The
    // host's goodbye still ends, and so does what this side refuses of its first connection.
    void OutliveConnections() { outlives = true; }
    // Goes on over another connection, after OnLost. Waits for the former one's threads. Not on a reader
    // thread.
    void Reconnect(std::unique_ptr<platform::ByteStream> stream);
    // Removes the shares that the present connection hasn't announced: all, or those of the name.
    void DropMissingShares(std::string_view name = {});
    // The share can be used, after OnDeviceAdded. The host is told, once a connection.
    void Accept(uint32_t deviceId);

    // Sends one request and its payload, both borrowed for the call; the CompletionId is filled in here.
    // The handler gets its outcome, which may be before this returns.
    void Submit(DR_DEVICE_IOREQUEST request, ByteSpan payload, const RequestTable::Expected &expected,
                IoHandler handler);
    // How a file is to be opened again; without, its handle ends with the connection.
    void Remember(uint32_t fileId, std::shared_ptr<IReopen> reopen);
    std::shared_ptr<IReopen> WayTo(uint32_t fileId) { return requests.WayTo(fileId); }
    uint32_t WireIdOf(uint32_t fileId, uint32_t *onlyOn) { return requests.WireIdOf(fileId, onlyOn); }
    bool KeepsRequests() const { return options.outlivesConnections; }

    bool ListsSeveral() const { return options.multiEntryDirectoryQuery; }
    LinkView LinksOfMount() const { return options.links; }
    // The present or the last connection's.
    std::shared_ptr<AgentChannel> Channel() const;
    const RequestTable &Requests() const { return requests; }
    // One step of the time that requests are given; the client's own clock makes one a second while any wait.
    void Tick() { requests.Tick(options.ioTimeoutSeconds); }

private:
    void OnChannelReady() override;
    void OnPacket(ByteSpan packet) override;
    void OnGoodbyeAsked(const std::string &reason) override;
    void OnChannelEnded(ChannelEnd end, const std::string &reason) override;

    std::shared_ptr<AgentChannel> NewChannel(std::unique_ptr<platform::ByteStream> stream);
    void OnCorePacket(uint16_t packetId, ByteSpan packet);
    void OnClientIdConfirm(ByteSpan packet);
    void OnVersionExchange(ByteSpan packet);
    void OnDeviceAnnounce(ByteSpan packet);
    void OnDeviceRemove(ByteSpan packet);
    void AddDevice(RemoteDevice device);
    struct KnownShare {
        RemoteDevice device; // with this side's number
        uint32_t wireId = 0;
        bool bound = false;    // announced by this connection
        bool accepted = false; // on this connection
        bool usable = false;   // accepted on any
    };
    KnownShare *FindShare(const RemoteDevice &announced, bool *back) REQUIRES(lock);
    uint32_t FreeShareId(uint32_t wished) const REQUIRES(lock);
    void SendReleased(RequestTable::Released released);
    void Reopen(uint32_t fileId);
    void SendRest();
    void CloseOrphan(uint32_t deviceId, uint32_t fileId);
    void ClockMain();
    template <wire::Record Packet> void SendRecord(const Packet &packet)
    {
        std::array<uint8_t, kWireEnd<Packet>> bytes;
        StorePacket(packet, bytes.data());
        Channel()->SendPacket(bytes);
    }

    const ClientOptions options;
    IClientObserver *const observer;
    RequestTable requests;
    std::atomic<uint32_t> clientId;
    std::atomic<bool> outlives{false};
    std::atomic<bool> firstConnection{true};

    mutable Mutex lock;
    bool confirmed GUARDED_BY(lock) = false;
    std::vector<KnownShare> shares GUARDED_BY(lock);
    bool stopping GUARDED_BY(lock) = false;
    Condition clockWakeup;
    std::atomic<bool> clockSleeps{false}; // until a request wants it
    std::thread clock;
    std::shared_ptr<AgentChannel> channel GUARDED_BY(lock);
    // Closed ones. Who sends may hold one for a moment; this is always the last to let go.
    std::vector<std::shared_ptr<AgentChannel>> formerChannels;
};

} // namespace fodr::agent
