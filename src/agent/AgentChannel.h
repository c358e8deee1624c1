// The agent's end of the channel: Hello, the two channel objects, the side channel, and packets on the data
// object. Knows nothing of what the packets say.
#pragma once

#include "agent/ClientOptions.h"
#include "agent/IoResult.h"
#include "agent/SideListener.h"
#include "rdpdr/wire/PacketWords.h"
#include "transport/FrameConnection.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace fodr::agent {

// Totals of the packets on a channel per kind, as both of its ends see them. Any thread; counting takes no
// lock.
class PacketTraffic {
public:
    struct Row {
        std::string kind;
        uint64_t packets = 0;
        uint64_t bytes = 0;
    };

    // `size` bytes of packet, of which the first `present` are at `data`.
    void Count(const void *data, size_t present, size_t size);

    // The kinds that were seen. Packets of an unknown kind are together in the last row, "other".
    std::vector<Row> Rows() const;

private:
    struct Total {
        std::atomic<uint64_t> packets{0};
        std::atomic<uint64_t> bytes{0};
    };

    std::array<Total, kNamedPacketKinds + 1> totals;
};

// How the connection came to its end.
enum class ChannelEnd {
    Goodbye, // the host asked for it, and the connection was closed thereafter
    Lost,
    Refused, // this side ended it: the two don't agree
};

// Calls come on reader threads: one while there is no side channel, else two.
class IPacketReceiver {
public:
    virtual void OnChannelReady() = 0; // packets may be sent; once
    virtual void OnPacket(ByteSpan packet) = 0;
    virtual void OnGoodbyeAsked(const std::string &reason) = 0;
    virtual void OnChannelEnded(ChannelEnd end, const std::string &reason) = 0; // the last call, once

protected:
    ~IPacketReceiver() = default;
};

class AgentChannel final : private transport::IConnectionReceiver {
public:
    // `packetReceiver` outlives the channel.
    AgentChannel(std::unique_ptr<platform::ByteStream> stream, const ClientOptions &clientOptions,
                 IPacketReceiver *packetReceiver);
    // Closes, and waits for the receiver's calls.
    ~AgentChannel();

    void Start();
    // Closes, and waits for the receiver's calls. Not on a reader thread. What is sent from now on goes
    // nowhere.
    void Stop();

    // Sends one packet made of two parts, borrowed for the call. False when the connection has ended or the
    // packet is too large for it. May wait while the host doesn't read, except on a reader thread.
    bool SendPacket(ByteSpan head, ByteSpan tail = {});
    void SendNotice(transport::NoticeKind kind, const std::string &text);
    // Tells the host why this side ends, and ends. `reason` is what OnChannelEnded tells.
    void Refuse(const std::string &reason);
    // Says goodbye and ends after what was sent has reached the stream. Not on a reader thread.
    void Close(const std::string &reason);

private:
    static constexpr uint32_t kControlObject = 1;
    static constexpr uint32_t kDataObject = 2;

    void OnHello(const transport::Hello &hello) override;
    void OnObjectState(const transport::ObjectState &state) override;
    void OnMessage(const transport::Message &message) override;
    void OnSideRequest(const transport::SideRequest &request) override;
    void OnGoodbye(const transport::Goodbye &goodbye) override;
    void OnClosed(const std::string &reason) override;
    bool IsGreeted(); // else the connection ends
    void AnnounceObjects();
    uint32_t DataObjectOptions() const;
    void UpdateReadiness();
    void OnSideConnected(std::unique_ptr<platform::ByteStream> stream);

    // Frames of the side connection: only messages and states mean anything there.
    class SideEnd final : public transport::IConnectionReceiver {
    public:
        explicit SideEnd(AgentChannel *owningChannel) : channel(owningChannel) {}
        void OnMessage(const transport::Message &message) override { channel->OnMessage(message); }
        void OnObjectState(const transport::ObjectState &state) override { channel->OnObjectState(state); }
        void OnClosed(const std::string &reason) override;

    private:
        AgentChannel *const channel;
    };

    const ClientOptions options;
    IPacketReceiver *const receiver;
    transport::FrameConnection connection;
    SideEnd sideEnd{this};
    std::unique_ptr<transport::FrameConnection> side;   // the listener's thread sets it, once
    std::atomic<transport::FrameConnection *> dataPath; // the one that packets take
    SideListener sideListener;

    std::atomic<bool> helloSeen{false};
    std::atomic<bool> goodbyeSeen{false};
    std::atomic<bool> refused{false};
    std::atomic<uint32_t> pingAfterMS{0}, deadAfterMS{0};
    Mutex stateLock;
    bool controlConnected GUARDED_BY(stateLock) = false;
    bool dataConnected GUARDED_BY(stateLock) = false;
    bool sidePending GUARDED_BY(stateLock) = false;
    bool readyTold GUARDED_BY(stateLock) = false;
};

} // namespace fodr::agent
