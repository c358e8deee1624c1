// A plug-in's side of a named channel object.
//
// Any thread may send on it. The state changes on the channel's event thread alone.
#pragma once

#include "host/CallGate.h"
#include "host/ChannelLink.h"
#include "host/HostMessage.h"

#include <atomic>
#include <map>
#include <memory>
#include <string>

namespace fodr::host {

class HostChannel;

class ChannelObject {
public:
    ChannelObject(HostChannel *owner, const char *objectName, const ObjectSink &notices, void *sinkUserData,
                  uint32_t createFlags)
        : channel(owner), name(objectName), flags(createFlags), sink(notices), userData(sinkUserData)
    {}

    HostChannel *const channel; // outlives it
    const std::string name;
    const uint32_t flags;
    // The plug-in has asked for a side channel, and nothing has come of it yet.
    std::atomic<bool> sideRequested{false};

    int32_t State() const { return state; }
    void SetState(int32_t value) { state = value; }
    // Tells the plug-in that the state has changed.
    void NotifyState();
    // Hands a received message to the plug-in. False when the object is gone.
    bool Deliver(const transport::Message &frame);

    // The peer's side, from when it is known.
    void Connect(uint32_t peerNumber, uint32_t peerOptions, std::shared_ptr<ChannelLink> link);
    void MoveTo(std::shared_ptr<ChannelLink> link); // its messages take this connection from now on
    uint32_t Number() const;
    bool Options(uint32_t *options) const; // false while the peer's side isn't known

    // Sends, in the caller's thread. The message stays the caller's. A result other than true means that
    // nothing will be reported.
    bool Invoke(const HostMessage &message, const MessageSink &report, void *reportUserData);
    void ReportDone(uint32_t requestId);
    void ReportAbort(uint32_t requestId, bool byUser, uint32_t reason);
    // No message can be sent any more; those that wait for an answer are reported as aborted.
    void Disconnect(bool byUser, uint32_t reason);
    // Disconnects; no notice runs or begins after it, but for one that is calling this.
    void Retire();

private:
    struct Report {
        MessageSink sink;
        void *userData;
    };
    bool TakeReport(uint32_t requestId, Report *report);

    const ObjectSink sink;
    void *const userData;
    CallGate gate;
    std::atomic<int32_t> state{OBJECT_PENDING};

    mutable Mutex lock;
    uint32_t number GUARDED_BY(lock) = 0;
    uint32_t options GUARDED_BY(lock) = 0;
    std::shared_ptr<ChannelLink> link GUARDED_BY(lock);  // null: not connected
    std::map<uint32_t, Report> reports GUARDED_BY(lock); // by request id
};

} // namespace fodr::host
