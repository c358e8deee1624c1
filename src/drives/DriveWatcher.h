// Tells one subscriber about arriving and leaving drives.
#pragma once

#include "platform/Threads.h"
#include "platform/Volumes.h"
#include "runtime/OVEvent.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <memory>

namespace fodr {

class IDeviceStateSubscriber;

class IDriveWatcher {
public:
    // True when the watcher runs, also when it ran before: it then keeps its first subscriber. The subscriber
    // must live until Stop has succeeded or the watcher is gone.
    virtual bool Start(IDeviceStateSubscriber *subscriber) = 0;
    // True when the watcher doesn't run any more; the subscriber hears nothing from then on. False when its
    // thread didn't end in time: the watcher counts as started and may be stopped again.
    virtual bool Stop() = 0;
    virtual ~IDriveWatcher() = default;

    static std::unique_ptr<IDriveWatcher> Create();
};

// Hears which drives came and went. Calls come on the watcher's thread, one at a time and in order.
class IDeviceStateSubscriber {
public:
    // The letter is a capital one. False is logged and disturbs nothing else.
    virtual bool OnDeviceAvailable(char driveLetter) = 0;
    virtual bool OnDeviceUnavailable(char driveLetter) = 0;
    virtual ~IDeviceStateSubscriber() = default;
};

// Runs on the drive watcher's thread: turns volume events into calls of the subscriber.
class HiddenDriveWatcherWindow : public RCObject, public platform::IVolumeEventSink {
public:
    HiddenDriveWatcherWindow();
    ~HiddenDriveWatcherWindow() override = default;

    // The thread's function. Sets windowCreatedEvent when the attempt to hear of volumes is over, also when
    // it failed: it then waits for its end without a call.
    void MessageLoopThread();

    bool IsWindow() const { return events.IsOpen(); }
    // Lets MessageLoopThread end. No call reaches the subscriber after OnClose.
    void Close() { events.RequestEnd(); }
    // Before the thread is started.
    void Attach(IDeviceStateSubscriber *newSubscriber) EXCLUDES(subscriberLock);
    // Waits for a call that is under way; the subscriber hears nothing from then on, whether the thread ends
    // or not. Not from a call.
    void Detach() EXCLUDES(subscriberLock);

    void OnVolumesArrived(uint32_t unitMask) override;
    void OnVolumesRemoved(uint32_t unitMask) override;
    void OnClose() override;

    OVEvent windowCreatedEvent; // auto-reset

private:
    OVMutex subscriberLock;                                                  // held for each call of it
    IDeviceStateSubscriber *subscriber GUARDED_BY(subscriberLock) = nullptr; // not owned
    platform::VolumeEvents events;
};

// The drive watcher over the platform's volume events.
class DriveWatcherImpl : public IDriveWatcher {
public:
    // How long Start waits for the thread to begin and Stop for it to end.
    static constexpr uint32_t kWaitMS = 15000;

    explicit DriveWatcherImpl(uint32_t stopTimeMS = kWaitMS); // Stop's alone
    ~DriveWatcherImpl() override;

    bool Start(IDeviceStateSubscriber *subscriber) override;
    bool Stop() override;

private:
    bool CreateWindowAndMessageLoopThread(IDeviceStateSubscriber *subscriber,
                                          platform::ThreadRecord **threadOut);
    bool AwaitWindow(platform::ThreadRecord *started);

    const uint32_t stopMS;
    OVMutex lock; // serialises Start and Stop
    bool started GUARDED_BY(lock) = false;
    // Shared with the thread, which outlives a watcher that couldn't be stopped.
    const RCPtr<HiddenDriveWatcherWindow> window;
    platform::ThreadRecord *thread GUARDED_BY(lock) = nullptr;
};

} // namespace fodr
