// HostChannel: its objects, their messages, and side channels.
#include "host/HostChannel.h"
#include "transport/FrameConnection.h"

#include <algorithm>

namespace fodr::host {

// What a thread that opens a side connection shares with the channel. It may outlive the channel: looking up
// a name can take long, and nobody waits for it.
struct HostChannel::SideAttempt {
    Mutex lock;
    HostChannel *channel GUARDED_BY(lock); // null: the channel has ended

    explicit SideAttempt(HostChannel *owner) : channel(owner) {}
};

// ---- From the reader thread to the event thread ----

void HostChannel::OnLinkHello(uint64_t link)
{
    PostForLink(link, [this] { HandleConnected(); });
}

void HostChannel::OnLinkAnnounce(uint64_t link, const transport::ObjectAnnounce &frame)
{
    PostForLink(link, [this, name = std::string(frame.name), peer = Peer{frame.object, frame.options}] {
        HandleAnnounce(name, peer);
    });
}

void HostChannel::OnLinkObjectState(uint64_t link, const transport::ObjectState &frame)
{
    PostForLink(link, [this, frame] { HandlePeerState(frame.object, frame.state); });
}

void HostChannel::ShowBlocks(const transport::Message &frame) const
{
    if (!options.onBlock)
        return;
    for (size_t i = 0; i < frame.parameterCount; ++i) {
        if (frame.parameters[i].isBlock)
            options.onBlock(frame.parameters[i]);
    }
}

bool HostChannel::OnLinkMessage(const transport::Message &frame)
{
    const ObjectPointer object = ObjectByNumber(frame.object);
    return object != nullptr && object->Deliver(frame);
}

void HostChannel::OnLinkMessageDone(const transport::MessageDone &frame)
{
    if (const ObjectPointer object = ObjectByNumber(frame.object))
        object->ReportDone(frame.requestId);
}

void HostChannel::OnLinkMessageAbort(const transport::MessageAbort &frame)
{
    if (const ObjectPointer object = ObjectByNumber(frame.object))
        object->ReportAbort(frame.requestId, false, frame.reason);
}

void HostChannel::OnLinkSideOffer(uint64_t link, const transport::SideOffer &frame)
{
    PostForLink(link, [this, frame] { HandleSideOffer(frame); });
}

void HostChannel::OnLinkSideRefused(uint64_t link, const transport::SideRefused &frame)
{
    PostForLink(link, [this, number = frame.object, reason = std::string(frame.reason)] {
        if (const ObjectPointer object = ObjectByNumber(number))
            SideChannelFailed(object, reason);
    });
}

void HostChannel::OnLinkNotice(uint64_t link, const transport::Notice &frame)
{
    PostForLink(link, [this, kind = frame.kind, text = std::string(frame.text)] {
        if (listener != nullptr)
            listener->OnNotice(kind, text);
    });
}

void HostChannel::OnLinkGoodbye(uint64_t link, const transport::Goodbye &frame)
{
    PostForLink(link, [this, reason = std::string(frame.reason)] {
        if (listener != nullptr)
            listener->OnAgentGoodbye(reason);
    });
}

void HostChannel::OnLinkClosed(uint64_t link, const std::string &reason)
{
    std::shared_ptr<ChannelLink> mainOfSide;
    {
        const MutexLock held(lock);
        if (sideLink != nullptr && sideLink->Id() == link)
            mainOfSide = mainLink;
    }
    if (mainOfSide)
        mainOfSide->Connection().Close("the side channel ended: " + reason);
    events.Post([this, link, reason] { // whatever else waits
        if (IsMain(link))
            HandleLost(reason);
    });
}

// ---- Objects ----

std::vector<HostChannel::ObjectPointer> HostChannel::Objects() const
{
    const MutexLock held(lock);
    return objects;
}

HostChannel::ObjectPointer HostChannel::ObjectByNumber(uint32_t number) const
{
    const MutexLock held(lock);
    for (const ObjectPointer &object : objects) {
        uint32_t unused = 0;
        if (object->Number() == number && object->Options(&unused))
            return object;
    }
    return nullptr;
}

void *HostChannel::CreateObject(const char *name, const ObjectSink &sink, void *userData, uint32_t flags)
{
    if (channelState != CONNECTION_CONNECTED)
        return nullptr;
    auto object = std::make_shared<ChannelObject>(this, name, sink, userData, flags);
    {
        const MutexLock held(lock);
        for (const ObjectPointer &other : objects) {
            if (other->name == object->name)
                return nullptr;
        }
        objects.push_back(object);
    }
    events.Post([this, object] { ConnectIfBothExist(object); });
    return host->AddObject(object);
}

void HostChannel::DestroyObject(const ObjectPointer &object)
{
    uint32_t unused = 0;
    const bool known = object->Options(&unused);
    {
        const MutexLock held(lock);
        std::erase(objects, object);
    }
    object->Retire();
    const auto link = Main();
    if (known && link != nullptr)
        link->Connection().Send(transport::ObjectState{object->Number(), OBJECT_DISCONNECTED});
}

void HostChannel::HandleAnnounce(const std::string &name, Peer peer)
{
    if (peers.size() >= kMaxPeers || peers.contains(name))
        return;
    peers[name] = peer;
    if (channelState != CONNECTION_CONNECTED)
        return; // the plug-in hears of it when the channel is opened
    NotifySinks(
        [&name](const Sink &sink) { sink.table.OnPeerChannelObjectCreated(sink.userData, name.c_str()); });
    for (const ObjectPointer &object : Objects())
        ConnectIfBothExist(object);
}

void HostChannel::ConnectIfBothExist(const ObjectPointer &object)
{
    const auto peer = peers.find(object->name);
    const auto link = Main();
    if (peer == peers.end() || link == nullptr || object->State() != OBJECT_PENDING)
        return;
    const std::vector<ObjectPointer> living = Objects();
    if (std::find(living.begin(), living.end(), object) == living.end())
        return;
    object->Connect(peer->second.number, peer->second.options, link);
    object->SetState(OBJECT_CONNECTED);
    object->NotifyState();
    // A side channel that was asked for in that notice is what the agent hears of next.
    if (!object->sideRequested)
        TellAgentState(object);
}

void HostChannel::HandlePeerState(uint32_t number, int32_t state)
{
    const auto peer = std::find_if(peers.begin(), peers.end(),
                                   [number](const auto &entry) { return entry.second.number == number; });
    if (state != OBJECT_DISCONNECTED || peer == peers.end())
        return;
    const ObjectPointer object = ObjectByNumber(number);
    peers.erase(peer);
    if (object != nullptr) {
        object->Disconnect(false, 0);
        object->NotifyState();
    }
}

void HostChannel::TellAgentState(const ObjectPointer &object)
{
    uint32_t unused = 0;
    const auto link = Main();
    if (link != nullptr && object->Options(&unused))
        link->Connection().Send(transport::ObjectState{object->Number(), object->State()});
}

// ---- Side channels ----

void HostChannel::RequestSideChannel(const ObjectPointer &object, int32_t type)
{
    object->sideRequested = true;
    events.Post([this, object, type] { HandleSideRequest(object, type); });
}

void HostChannel::HandleSideRequest(const ObjectPointer &object, int32_t type)
{
    const auto link = Main();
    if (object->State() != OBJECT_CONNECTED || link == nullptr) {
        object->sideRequested = false;
        return;
    }
    object->SetState(OBJECT_SIDE_CHANNEL_PENDING);
    object->NotifyState();
    TellAgentState(object);
    if (type != SIDE_CHANNEL_TCP)
        SideChannelFailed(object, "only TCP side channels are offered");
    else if (options.sideChannelHost.empty())
        SideChannelFailed(object, "the agent's machine can't be reached but by the main connection");
    else
        link->Connection().Send(transport::SideRequest{object->Number(), SIDE_CHANNEL_TCP});
}

void HostChannel::HandleSideOffer(const transport::SideOffer &offer)
{
    const ObjectPointer object = ObjectByNumber(offer.object);
    if (object == nullptr || object->State() != OBJECT_SIDE_CHANNEL_PENDING || sideAttempt != nullptr)
        return; // not asked for
    sideAttempt = std::make_shared<SideAttempt>(this);
    std::thread([attempt = sideAttempt, offer, agentHost = options.sideChannelHost,
                 timeoutMS = options.sideChannelTimeoutMS] {
        std::string error;
        // An event can be copied, a stream can't.
        auto stream = std::make_shared<std::unique_ptr<platform::ByteStream>>(
            transport::OpenSideStream(agentHost, offer, timeoutMS, &error));
        const MutexLock held(attempt->lock);
        HostChannel *channel = attempt->channel;
        if (channel == nullptr)
            return;
        channel->events.Post([channel, attempt, stream, error, number = offer.object] {
            if (channel->sideAttempt == attempt)
                channel->HandleSideStream(number, std::move(*stream), error);
        });
    }).detach();
}

void HostChannel::HandleSideStream(uint32_t number, std::unique_ptr<platform::ByteStream> stream,
                                   const std::string &error)
{
    const ObjectPointer object = ObjectByNumber(number);
    AbandonSideAttempt();
    if (object == nullptr || object->State() != OBJECT_SIDE_CHANNEL_PENDING)
        return;
    if (stream == nullptr)
        return SideChannelFailed(object, error);
    std::shared_ptr<ChannelLink> link;
    {
        const MutexLock held(lock);
        link = std::make_shared<ChannelLink>(ChannelLink::Kind::Side, ++lastLink,
                                             static_cast<ILinkOwner *>(this), std::move(stream), "",
                                             options.keepAlive);
        if (options.writeTimeoutMS > 0)
            link->Connection().SetWriteTimeout(options.writeTimeoutMS);
        sideLink = link;
    }
    object->MoveTo(link);
    link->Connection().Start();
    object->sideRequested = false;
    object->SetState(OBJECT_SIDE_CHANNEL_CONNECTED);
    object->NotifyState();
    TellAgentState(object);
}

void HostChannel::AbandonSideAttempt()
{
    if (sideAttempt == nullptr)
        return;
    {
        const MutexLock held(sideAttempt->lock);
        sideAttempt->channel = nullptr;
    }
    sideAttempt.reset();
}

// By the boundary's rules a failure is the object being CONNECTED again while the side channel is pending.
void HostChannel::SideChannelFailed(const ObjectPointer &object, const std::string &reason)
{
    if (object->State() != OBJECT_SIDE_CHANNEL_PENDING)
        return;
    object->sideRequested = false;
    object->SetState(OBJECT_CONNECTED);
    object->NotifyState();
    TellAgentState(object);
    if (listener != nullptr)
        listener->OnSideChannelFailed(reason);
}

} // namespace fodr::host
