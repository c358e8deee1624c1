#include "host/HostChannel.h"

#include "host/CallGate.h"

#include <algorithm>
#include <future>

namespace fodr::host {

HostChannel::HostChannel(PluginHost *pluginHost, const ChannelOptions &channelOptions, IChannelListener *told)
    : host(pluginHost), options(channelOptions), listener(told)
{
    host->AddChannel(this);
    eventThread = std::thread([this] { RunEvents(); });
}

HostChannel::~HostChannel()
{
    // First the connection, so that nothing of the plug-in waits for the agent any more.
    Close("the host ends");
    DestroyInstance();
    std::shared_ptr<ChannelLink> links[2];
    {
        const MutexLock held(lock);
        links[0].swap(mainLink);
        links[1].swap(sideLink);
    }
    for (auto &link : links)
        link.reset();
    events.Post([this] {
        AbandonSideAttempt();
        stopping = true;
    });
    eventThread.join();
    host->RemoveChannel(this);
}

void HostChannel::RunEvents()
{
    while (!stopping)
        events.RunOne();
}

void HostChannel::RunAndWait(EventQueue::Event event)
{
    if (std::this_thread::get_id() == eventThread.get_id()) {
        event();
        return;
    }
    std::promise<void> done;
    events.Post([&] {
        event();
        done.set_value();
    });
    done.get_future().wait();
}

// An event that matters only while the connection it came from is the channel's.
void HostChannel::PostForLink(uint64_t link, EventQueue::Event event)
{
    if (++waitingEvents > kMostWaitingEvents) {
        if (const auto flooded = Main(); flooded && flooded->Id() == link)
            flooded->Connection().Close("the agent sends more than can be handled");
        --waitingEvents;
        return;
    }
    events.Post([this, link, run = std::move(event)] {
        --waitingEvents;
        if (IsMain(link))
            run();
    });
}

void HostChannel::Settle()
{
    RunAndWait([] {});
}

// ---- The connection ----

void HostChannel::Attach(std::unique_ptr<platform::ByteStream> stream)
{
    // The plug-in hears of a former connection's end first, also when that hasn't been noticed yet.
    RunAndWait([this] {
        if (Main())
            HandleLost("another connection takes its place");
    });
    std::shared_ptr<ChannelLink> link;
    {
        const MutexLock held(lock);
        link = std::make_shared<ChannelLink>(ChannelLink::Kind::Main, ++lastLink,
                                             static_cast<ILinkOwner *>(this), std::move(stream),
                                             options.expectedToken, options.keepAlive);
        if (options.writeTimeoutMS > 0)
            link->Connection().SetWriteTimeout(options.writeTimeoutMS);
        mainLink = link;
    }
    connectionState = CONNECTION_PENDING;
    link->Connection().Start();
    transport::Hello hello;
    hello.keepAlive = options.keepAlive;
    hello.token = options.token;
    link->Connection().Send(hello);
}

void HostChannel::SayGoodbye(const std::string &reason)
{
    if (const auto link = Main())
        link->Connection().Queue(transport::Goodbye{reason});
}

void HostChannel::Close(const std::string &reason)
{
    std::shared_ptr<ChannelLink> links[2];
    {
        const MutexLock held(lock);
        links[0] = mainLink;
        links[1] = sideLink;
    }
    for (const auto &link : links) {
        if (link)
            link->Connection().Close(reason);
    }
}

bool HostChannel::IsMain(uint64_t link) const
{
    const MutexLock held(lock);
    return mainLink != nullptr && mainLink->Id() == link;
}

std::shared_ptr<ChannelLink> HostChannel::Main() const
{
    const MutexLock held(lock);
    return mainLink;
}

void HostChannel::HandleConnected()
{
    connectionState = CONNECTION_CONNECTED;
    if (hasInstance) {
        NotifySinks([](const Sink &sink) {
            sink.table.OnConnectionStateChanged(sink.userData, CONNECTION_CONNECTED, CONNECTION_CONNECTED);
        });
    } else {
        const CallScope scope(this);
        hasInstance = host->Plugin().CreateInstance(this, &instance);
    }
    if (listener != nullptr) {
        if (hasInstance)
            listener->OnConnected();
        else
            listener->OnInstanceRefused();
    }
}

void HostChannel::HandleLost(const std::string &reason)
{
    std::shared_ptr<ChannelLink> links[2];
    {
        const MutexLock held(lock);
        links[0].swap(mainLink);
        links[1].swap(sideLink);
    }
    const bool wasConnected = connectionState.exchange(CONNECTION_DISCONNECTED) == CONNECTION_CONNECTED;
    AbandonSideAttempt();
    peers.clear();
    for (const ObjectPointer &object : Objects())
        object->Disconnect(false, 0);
    // Ends the connections, and with them whatever of the plug-in waits to send.
    for (auto &link : links) {
        if (link)
            link->Connection().Close(reason);
        link.reset();
    }
    if (wasConnected) {
        NotifySinks([](const Sink &sink) {
            sink.table.OnConnectionStateChanged(sink.userData, CONNECTION_DISCONNECTED,
                                                CONNECTION_DISCONNECTED);
        });
    }
    Shut();
    events.Post([this, reason] {
        for (const ObjectPointer &object : Objects())
            object->NotifyState();
        if (listener != nullptr)
            listener->OnLost(reason);
    });
}

// ---- The channel ----

void HostChannel::NotifySinks(const std::function<void(const Sink &)> &call)
{
    std::vector<std::shared_ptr<Sink>> told;
    {
        const MutexLock held(lock);
        told = sinks;
    }
    for (const auto &sink : told) {
        const GatedCall gated(sink->gate);
        const CallScope scope(this);
        if (gated)
            call(*sink);
    }
}

bool HostChannel::AddSink(const ChannelSink &table, void *userData, uint32_t *sinkId)
{
    if (table.OnConnectionStateChanged == nullptr || table.OnChannelStateChanged == nullptr ||
        table.OnPeerChannelObjectCreated == nullptr)
        return false;
    auto sink = std::make_shared<Sink>();
    sink->table = table;
    sink->userData = userData;
    const MutexLock held(lock);
    sink->id = ++lastSink;
    sinks.push_back(sink);
    *sinkId = sink->id;
    return true;
}

bool HostChannel::RemoveSink(uint32_t sinkId)
{
    std::shared_ptr<Sink> gone;
    {
        const MutexLock held(lock);
        const auto at = std::find_if(sinks.begin(), sinks.end(),
                                     [sinkId](const auto &sink) { return sink->id == sinkId; });
        if (at == sinks.end())
            return false;
        gone = *at;
        sinks.erase(at);
    }
    gone->gate.CloseAndWait();
    return true;
}

int32_t HostChannel::GetSessionType() const
{
    return channelState == CONNECTION_CONNECTED ? options.sessionType : SESSION_NONE;
}

bool HostChannel::Open()
{
    if (connectionState != CONNECTION_CONNECTED)
        return false;
    int32_t expected = CONNECTION_DISCONNECTED;
    if (channelState.compare_exchange_strong(expected, CONNECTION_PENDING))
        events.Post([this] { HandleOpened(); });
    return true;
}

bool HostChannel::Shut()
{
    if (channelState.exchange(CONNECTION_DISCONNECTED) == CONNECTION_DISCONNECTED)
        return true;
    for (const ObjectPointer &object : Objects())
        object->Disconnect(false, 0);
    events.Post([this] {
        const int32_t current = channelState;
        NotifySinks([current](const Sink &sink) {
            sink.table.OnChannelStateChanged(sink.userData, current, CONNECTION_DISCONNECTED);
        });
    });
    return true;
}

void HostChannel::HandleOpened()
{
    int32_t expected = CONNECTION_PENDING;
    if (!channelState.compare_exchange_strong(expected, CONNECTION_CONNECTED))
        return;
    NotifySinks([](const Sink &sink) {
        sink.table.OnChannelStateChanged(sink.userData, CONNECTION_CONNECTED, CONNECTION_CONNECTED);
    });
    for (const auto &[name, peer] : peers) {
        NotifySinks([&peerName = name](const Sink &sink) {
            sink.table.OnPeerChannelObjectCreated(sink.userData, peerName.c_str());
        });
    }
}

// ---- The instance ----

void HostChannel::DestroyInstance()
{
    RunAndWait([this] { DestroyInstanceNow(); });
}

void HostChannel::DestroyInstanceNow()
{
    if (!hasInstance)
        return;
    {
        const CallScope scope(this);
        host->Plugin().DestroyInstance(instance);
    }
    hasInstance = false;
    instance = nullptr;
    // What the plug-in has left behind must not reach it any more.
    std::vector<std::shared_ptr<Sink>> leftSinks;
    std::vector<ObjectPointer> leftObjects;
    {
        const MutexLock held(lock);
        leftSinks.swap(sinks);
        leftObjects.swap(objects);
    }
    for (const auto &sink : leftSinks)
        sink->gate.CloseAndWait();
    for (const ObjectPointer &object : leftObjects)
        object->Retire();
    host->DropObjects(this);
    channelState = CONNECTION_DISCONNECTED;
}

} // namespace fodr::host
