// The drive watcher over the platform's volume events.
#pragma once

#include "drives/HiddenDriveWatcherWindow.h"
#include "drives/IDriveWatcher.h"
#include "platform/Threads.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <cstdint>

namespace fodr {

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
