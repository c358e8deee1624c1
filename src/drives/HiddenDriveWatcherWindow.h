// What runs on the drive watcher's thread: hears of volumes and turns them into calls of the subscriber.
#pragma once

#include "platform/VolumeEvents.h"
#include "runtime/OVEvent.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <cstdint>

namespace fodr {

class IDeviceStateSubscriber;

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

} // namespace fodr
