// The state of one channel: its sink, its two channel objects, readiness, and the messages on their way.
//
// Threads: flags change inside the host's notices and create/destroy calls; messages are made and sent from
// any thread. pendingLock guards pendingCount and noPendingEvent and is never held across a host call.
#pragma once

#include "odpservice/odpservice.h"
#include "runtime/OVEvent.h"
#include "runtime/OVMutex.h"
#include "runtime/OVTimer.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <utility>

namespace fodr {

class RPCManager;

// The handle of a channel object. The host writes it from inside CreateObject, before it reports any state of
// the object, which it may do from there or from another thread. So the slot that the host writes to is the
// one that all others read.
//
// While DestroyObject runs the handle is still there for the host's last notices, but not for senders.
class HostHandle {
public:
    static_assert(std::atomic_ref<void *>::is_always_lock_free);

    void **Slot() { return &handle; }
    void *Get() const { return Reference().load(); }
    void *ForSending() const { return leaving ? nullptr : Get(); }

    // The handle, for the one caller that is to destroy it and calls Clear then; else null.
    void *TakeForDestruction()
    {
        if (leaving.exchange(true))
            return nullptr;
        void *taken = Get(); // only now: another thread may have destroyed it meanwhile
        if (!taken)
            leaving = false;
        return taken;
    }
    void Clear()
    {
        Reference().store(nullptr);
        leaving = false;
    }

private:
    std::atomic_ref<void *> Reference() const { return std::atomic_ref<void *>(handle); }

    mutable void *handle = nullptr;
    std::atomic<bool> leaving{false};
};

class RPCPluginInstance : public RCObject {
public:
    // Which channel object an operation means; any other number is the control object.
    static constexpr int32_t kControlChannel = 0;
    static constexpr int32_t kDataChannel = 1;
    static constexpr uint32_t kNoSink = 0xFFFFFFFF;

    explicit RPCPluginInstance(RPCManager *owner);
    ~RPCPluginInstance() override;

    virtual int32_t SuppressObjectFlag8() { return 0; }
    virtual int32_t SuppressObjectFlag4() { return 0; }
    virtual void OnConnectFailed() {}
    virtual void OnReady() {}
    virtual void OnNotReady() {}
    virtual void OnDone(uint32_t /*requestId*/, void * /*context*/) {}
    virtual void OnAbort(uint32_t /*requestId*/, uint8_t /*userCancel*/, uint32_t /*reason*/) {}
    virtual void OnInvoke(void * /*context*/) {}

    bool RegisterChannelSink(void *hostChannel);
    bool UnregisterChannelSink();
    bool ChannelConnect();
    bool ChannelDisconnect();
    void OnChannelConnected();
    void OnChannelDisconnected();
    void ChannelControlObjCreate(const char *name);
    void ChannelDataObjCreate(const char *name);
    void OnChannelControlObjConnected();
    void OnChannelControlObjDisconnected();
    void OnChannelDataObjConnected();
    void OnChannelDataObjDisconnected();

    // An outgoing message on a ready channel. It belongs to the caller until InvokeMessage has succeeded.
    bool CreateMessage(void **message, int32_t channelNumber);
    bool CreateExtMessage(void **message, int32_t channelNumber, uint32_t options);
    bool DestroyMessage(void *message);
    // Sends a message; without `wantCompletion` in post mode, where the host reports nothing back.
    bool InvokeMessage(void *message, bool wantCompletion, int32_t channelNumber);
    bool GetChannelOptions(int32_t channelNumber, uint32_t *options);

    void HandleMsgDone(uint32_t requestId, void *context);
    void HandleMsgAbort(uint32_t requestId, uint8_t userCancel, uint32_t reason);

protected:
    RPCManager *const manager; // not owned

private:
    friend class RPCManager;
    friend class RPCPluginInstanceTest;

    bool RefuseInStreamMode(const char *operation) const;
    bool ChannelObjCreate(const char *name, const ObjectSink *sink, bool tcpSide, bool vchanSide,
                          HostHandle *handle);
    bool ChannelObjDestroy(const char *name, HostHandle *handle);
    uint32_t ObjectFlags(bool tcpSide, bool vchanSide);
    void BecomeReadyIfBothConnected();
    void UpdatePending(int32_t delta) REQUIRES(pendingLock);
    void *ObjectOf(int32_t channelNumber) const
    {
        return (channelNumber == kDataChannel ? dataObj : controlObj).ForSending();
    }

    void *channel = nullptr;
    uint32_t sinkId = kNoSink;
    bool discardConnection = false;
    char controlObjName[64] = {};
    HostHandle controlObj;
    char dataObjName[64] = {};
    HostHandle dataObj;
    bool channelConnecting = false;
    bool channelConnected = false;
    bool tcpSideChannel = false;
    bool vchanSideChannel = false;
    std::atomic<bool> sideChannelPending{false};
    std::atomic<bool> ready{false};
    std::atomic<bool> controlObjConnected{false};
    std::atomic<bool> dataObjConnected{false};
    bool streamData = false;
    OVMutex pendingLock;
    OVEvent noPendingEvent{true, true};
    int32_t pendingCount GUARDED_BY(pendingLock) = 0;
    OVEvent readyEvent{true, false};
    OVEvent connectFailedEvent{true, false};
    void *serverId = nullptr;
    std::list<std::pair<uint32_t, OVElapsedTimer>> sentRequests;
};

} // namespace fodr
