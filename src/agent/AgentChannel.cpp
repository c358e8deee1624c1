#include "agent/AgentChannel.h"

#include "odpservice/odpservice.h"

namespace fodr::agent {

namespace {

constexpr uint32_t kObjectFlags = 0x0D; // what the other side gives its own objects
constexpr int kFlushMS = 2000;

std::span<const std::byte> AsBytes(ByteSpan bytes)
{
    return std::as_bytes(bytes);
}

} // namespace

AgentChannel::AgentChannel(std::unique_ptr<platform::ByteStream> stream, const ClientOptions &clientOptions,
                           IPacketReceiver *packetReceiver)
    : options(clientOptions), receiver(packetReceiver), connection(std::move(stream), this),
      dataPath(&connection)
{}

AgentChannel::~AgentChannel()
{
    Stop();
}

void AgentChannel::Stop()
{
    connection.Stop();
    // From the reader's last call on nothing starts the listener.
    sideListener.Stop();
    if (side)
        side->Stop();
}

void AgentChannel::Start()
{
    transport::Hello hello;
    hello.role = transport::Role::Agent;
    hello.token = options.token;
    // Nothing may come before it, and the reader answers the host's.
    connection.Send(hello);
    connection.Start();
}

bool AgentChannel::SendPacket(ByteSpan head, ByteSpan tail)
{
    return dataPath.load()->SendPost(kDataObject, 0, AsBytes(head), AsBytes(tail));
}

void AgentChannel::SendNotice(transport::NoticeKind kind, const std::string &text)
{
    connection.Send(transport::Notice{.kind = kind, .text = text});
}

void AgentChannel::Refuse(const std::string &reason)
{
    refused = true;
    connection.Send(transport::Goodbye{.reason = reason});
    // What is queued goes out before the stream is shut down, unless this is the thread that reads.
    connection.Flush(kFlushMS);
    connection.Close(reason);
}

void AgentChannel::Close(const std::string &reason)
{
    connection.Send(transport::Goodbye{.reason = reason});
    connection.Flush(kFlushMS);
    connection.Close(reason);
}

void AgentChannel::OnHello(const transport::Hello &hello)
{
    if (helloSeen.exchange(true))
        return Refuse("the host said hello twice");
    if (hello.version != transport::kVersion)
        return Refuse("the host speaks version " + std::to_string(hello.version) +
                      " of the transport, this agent " + std::to_string(transport::kVersion));
    if (hello.role != transport::Role::Host)
        return Refuse("the other end isn't a host");
    if (!options.expectedToken.empty() && hello.token != options.expectedToken)
        return Refuse("the host doesn't know the token of this session");
    pingAfterMS = hello.keepAlive.pingAfterMS;
    deadAfterMS = hello.keepAlive.deadAfterMS;
    connection.SetKeepAlive(hello.keepAlive);
    AnnounceObjects();
}

// Nothing counts of a host that hasn't shown the token.
bool AgentChannel::IsGreeted()
{
    if (!helloSeen)
        Refuse("the host didn't say hello first");
    return helloSeen;
}

uint32_t AgentChannel::DataObjectOptions() const
{
    switch (options.sideChannel) {
    case SideChannel::Tcp:
        return ODP_OPTION_TCP;
    case SideChannel::LeftToThePlugin:
        return 0;
    case SideChannel::None:
        break;
    }
    return ODP_OPTION_VIRTUAL | ODP_OPTION_TCP; // both together: none
}

void AgentChannel::AnnounceObjects()
{
    connection.Send(transport::ObjectAnnounce{.object = kControlObject,
                                              .flags = kObjectFlags,
                                              .options = ODP_OPTION_VIRTUAL | ODP_OPTION_TCP,
                                              .name = "fodrControlObj"});
    connection.Send(transport::ObjectAnnounce{
        .object = kDataObject, .flags = kObjectFlags, .options = DataObjectOptions(), .name = "fodrDataObj"});
}

void AgentChannel::OnObjectState(const transport::ObjectState &state)
{
    if (!IsGreeted())
        return;
    const bool connected = state.state == OBJECT_CONNECTED || state.state == OBJECT_SIDE_CHANNEL_CONNECTED;
    bool sideFailed = false;
    {
        const MutexLock held(stateLock);
        if (state.object == kControlObject) {
            controlConnected = connected;
        } else if (state.object == kDataObject) {
            // The plug-in gives the object up when its side channel failed: nothing would be answered.
            sideFailed = sidePending && state.state == OBJECT_CONNECTED;
            sidePending = state.state == OBJECT_SIDE_CHANNEL_PENDING;
            dataConnected = connected && !sideFailed;
        }
    }
    if (sideFailed)
        return Refuse("the side channel couldn't be set up");
    UpdateReadiness();
}

void AgentChannel::UpdateReadiness()
{
    {
        const MutexLock held(stateLock);
        if (!controlConnected || !dataConnected || readyTold)
            return;
        readyTold = true;
    }
    receiver->OnChannelReady();
}

void AgentChannel::OnMessage(const transport::Message &message)
{
    if (!IsGreeted())
        return;
    if (message.object == kDataObject && message.parameterCount == 1 && message.parameters[0].isBlock) {
        const platform::ByteView block = message.parameters[0].block;
        receiver->OnPacket({reinterpret_cast<const uint8_t *>(block.data()), block.size()});
    }
    if ((message.flags & transport::Message::kPost) == 0)
        connection.Send(transport::MessageDone{.object = message.object, .requestId = message.requestId});
}

void AgentChannel::OnSideRequest(const transport::SideRequest &request)
{
    if (!IsGreeted())
        return;
    std::string error;
    transport::SideOffer offer;
    if (request.object != kDataObject || request.type != SIDE_CHANNEL_TCP)
        error = "this agent only offers TCP side channels, for the data object";
    else if (options.sideChannel == SideChannel::None)
        error = "this agent offers no side channel";
    else if (sideListener.Start(
                 options.sideChannelAddress, kDataObject,
                 [this](std::unique_ptr<platform::ByteStream> stream) { OnSideConnected(std::move(stream)); },
                 &offer, &error)) {
        connection.Send(offer);
        return;
    }
    connection.Send(transport::SideRefused{.object = request.object, .reason = error});
}

void AgentChannel::OnSideConnected(std::unique_ptr<platform::ByteStream> stream)
{
    if (!stream) {
        connection.Send(transport::SideRefused{.object = kDataObject, .reason = "the host didn't connect"});
        return;
    }
    side = std::make_unique<transport::FrameConnection>(std::move(stream), &sideEnd);
    side->SetKeepAlive({.pingAfterMS = pingAfterMS, .deadAfterMS = deadAfterMS});
    side->Send(transport::SideReady{.object = kDataObject});
    side->Start();
    dataPath.store(side.get());
    if (connection.IsClosed())
        side->Close("the main connection ended");
}

void AgentChannel::SideEnd::OnClosed(const std::string &reason)
{
    channel->connection.Close("the side channel ended: " + reason);
}

void AgentChannel::OnGoodbye(const transport::Goodbye &goodbye)
{
    if (!IsGreeted())
        return;
    goodbyeSeen = true;
    receiver->OnGoodbyeAsked(std::string(goodbye.reason));
}

void AgentChannel::OnClosed(const std::string &reason)
{
    sideListener.Cancel();
    transport::FrameConnection *path = dataPath.load();
    if (path != &connection)
        path->Close("the main connection ended");
    const ChannelEnd end = refused       ? ChannelEnd::Refused
                           : goodbyeSeen ? ChannelEnd::Goodbye
                                         : ChannelEnd::Lost;
    receiver->OnChannelEnded(end, reason);
}

void PacketTraffic::Count(const void *data, size_t present, size_t size)
{
    if (present == 0)
        return;
    Total &total = totals[PlaceOfPacketKind(PacketKind(data, present))];
    total.packets.fetch_add(1, std::memory_order_relaxed);
    total.bytes.fetch_add(size, std::memory_order_relaxed);
}

std::vector<PacketTraffic::Row> PacketTraffic::Rows() const
{
    std::vector<Row> rows;
    for (size_t place = 0; place < totals.size(); ++place) {
        const uint64_t packets = totals[place].packets.load(std::memory_order_relaxed);
        const uint64_t bytes = totals[place].bytes.load(std::memory_order_relaxed);
        if (packets != 0)
            rows.push_back({place < kNamedPacketKinds ? PacketKindName(NamedPacketKind(place)) : "other",
                            packets, bytes});
    }
    return rows;
}

} // namespace fodr::agent
