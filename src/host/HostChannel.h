// One channel: a plug-in's instance and its connection to an agent.
//
// Threads: a channel has an event thread. On it the instance is made and destroyed, states change and the
// plug-in hears of them, one thing after the other, and the listener is told. Messages reach the plug-in on
// the reader thread of the connection that brought them. No lock is held across a call into the plug-in.
#pragma once

#include "host/CallGate.h"
#include "host/ChannelLink.h"
#include "host/ChannelObject.h"
#include "host/PluginHost.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace fodr::host {

// Told on the channel's event thread.
class IChannelListener {
public:
    virtual void OnConnected() {}       // both sides have greeted, the plug-in knows
    virtual void OnInstanceRefused() {} // the plug-in made no instance: its initialisation has failed
    virtual void OnNotice(transport::NoticeKind, const std::string & /*text*/) {}
    virtual void OnAgentGoodbye(const std::string & /*reason*/) {}
    virtual void OnSideChannelFailed(const std::string & /*reason*/) {}
    virtual void OnLost(const std::string & /*reason*/) {} // the connection is gone, the plug-in knows

protected:
    ~IChannelListener() = default;
};

struct ChannelOptions {
    std::string token;         // shown to the agent
    std::string expectedToken; // to be shown by the agent; empty: any
    transport::KeepAlive keepAlive{0, 0};
    int writeTimeoutMS = 0;      // an agent that takes nothing for so long is lost; 0: never
    std::string sideChannelHost; // where an offered TCP port is; empty: TCP side channels are refused
    int sideChannelTimeoutMS = 10000;
    int32_t sessionType = SESSION_PCOIP;
    // Sees every message with a block, either way, before it is passed on. Several threads at once; must not
    // block. May be empty.
    std::function<void(const transport::Parameter &block)> onBlock;
};

class HostChannel final : private ILinkOwner {
public:
    // Frames about the channel that an agent has sent and that aren't handled yet. Packets aren't counted:
    // they go straight to the plug-in.
    static constexpr size_t kMostWaitingEvents = 4096;
    static constexpr size_t kMaxPeers = 64; // objects of one agent

    // Host and listener outlive the channel; the listener may be null.
    HostChannel(PluginHost *pluginHost, const ChannelOptions &channelOptions, IChannelListener *told);
    // Ends the connection and destroys the instance.
    ~HostChannel();
    HostChannel(const HostChannel &) = delete;
    HostChannel &operator=(const HostChannel &) = delete;

    // Starts a connection; a former one is ended first. When the agent has greeted, the instance is made, or
    // hears that its connection is back.
    void Attach(std::unique_ptr<platform::ByteStream> stream);
    // Asks the agent to finish; OnLost follows when it has, or after Close. Never waits for the agent.
    void SayGoodbye(const std::string &reason);
    // Ends the connection at once. OnLost follows.
    void Close(const std::string &reason);
    // Destroys the instance, if there is one; waits for what the plug-in waits for.
    void DestroyInstance();
    // Waits until every event so far has been handled.
    void Settle();

    void ShowBlocks(const transport::Message &frame) const;

    // ---- What a plug-in may ask of its channel ----
    bool AddSink(const ChannelSink &sink, void *userData, uint32_t *sinkId);
    bool RemoveSink(uint32_t sinkId);
    bool Open();
    bool Shut();
    int32_t GetConnectionState() const { return connectionState; }
    int32_t GetSessionType() const;
    void *CreateObject(const char *name, const ObjectSink &sink, void *userData, uint32_t flags);
    void DestroyObject(const std::shared_ptr<ChannelObject> &object); // whose handle is taken already
    void RequestSideChannel(const std::shared_ptr<ChannelObject> &object, int32_t type);

private:
    struct Sink {
        uint32_t id;
        ChannelSink table;
        void *userData;
        CallGate gate;
    };
    struct Peer {
        uint32_t number = 0;
        uint32_t options = 0;
    };
    struct SideAttempt;
    using ObjectPointer = std::shared_ptr<ChannelObject>;

    void OnLinkHello(uint64_t link) override;
    void OnLinkAnnounce(uint64_t link, const transport::ObjectAnnounce &frame) override;
    void OnLinkObjectState(uint64_t link, const transport::ObjectState &frame) override;
    bool OnLinkMessage(const transport::Message &frame) override;
    void OnLinkMessageDone(const transport::MessageDone &frame) override;
    void OnLinkMessageAbort(const transport::MessageAbort &frame) override;
    void OnLinkSideOffer(uint64_t link, const transport::SideOffer &frame) override;
    void OnLinkSideRefused(uint64_t link, const transport::SideRefused &frame) override;
    void OnLinkNotice(uint64_t link, const transport::Notice &frame) override;
    void OnLinkGoodbye(uint64_t link, const transport::Goodbye &frame) override;
    void OnLinkClosed(uint64_t link, const std::string &reason) override;

    // On the event thread.
    void RunEvents();
    void RunAndWait(EventQueue::Event event);
    void PostForLink(uint64_t link, EventQueue::Event event);
    void HandleConnected();
    void HandleLost(const std::string &reason);
    void HandleOpened();
    void HandleAnnounce(const std::string &name, Peer peer);
    void HandlePeerState(uint32_t number, int32_t state);
    void ConnectIfBothExist(const ObjectPointer &object);
    void HandleSideRequest(const ObjectPointer &object, int32_t type);
    void HandleSideOffer(const transport::SideOffer &offer);
    void HandleSideStream(uint32_t number, std::unique_ptr<platform::ByteStream> stream,
                          const std::string &error);
    void AbandonSideAttempt();
    void SideChannelFailed(const ObjectPointer &object, const std::string &reason);
    void TellAgentState(const ObjectPointer &object);
    void DestroyInstanceNow();
    void NotifySinks(const std::function<void(const Sink &)> &call);

    bool IsMain(uint64_t link) const;
    std::shared_ptr<ChannelLink> Main() const;
    ObjectPointer ObjectByNumber(uint32_t number) const;
    std::vector<ObjectPointer> Objects() const;

    PluginHost *const host;
    const ChannelOptions options;
    IChannelListener *const listener;

    std::atomic<int32_t> connectionState{CONNECTION_DISCONNECTED};
    std::atomic<int32_t> channelState{CONNECTION_DISCONNECTED};

    mutable Mutex lock;
    std::vector<std::shared_ptr<Sink>> sinks GUARDED_BY(lock);
    std::vector<ObjectPointer> objects GUARDED_BY(lock);
    std::shared_ptr<ChannelLink> mainLink GUARDED_BY(lock);
    std::shared_ptr<ChannelLink> sideLink GUARDED_BY(lock);
    uint64_t lastLink GUARDED_BY(lock) = 0;
    uint32_t lastSink GUARDED_BY(lock) = 0;

    // The event thread's.
    std::map<std::string, Peer> peers;
    void *instance = nullptr;
    bool hasInstance = false;
    std::shared_ptr<SideAttempt> sideAttempt;
    bool stopping = false;

    EventQueue events;
    std::atomic<size_t> waitingEvents{0}; // of links
    std::thread eventThread;
};

} // namespace fodr::host
