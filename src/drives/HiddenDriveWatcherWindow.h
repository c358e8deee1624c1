// What runs on the drive watcher's thread: hears of volumes and turns them into calls of the subscriber.
#pragma once

#include "platform/VolumeEvents.h"
#include "runtime/OVEvent.h"
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

    void OnVolumesArrived(uint32_t unitMask) override;
    void OnVolumesRemoved(uint32_t unitMask) override;
    void OnClose() override;

    OVEvent windowCreatedEvent;                   // auto-reset
    IDeviceStateSubscriber *subscriber = nullptr; // not owned; the thread's own while that runs

private:
    platform::VolumeEvents events;
};

} // namespace fodr
