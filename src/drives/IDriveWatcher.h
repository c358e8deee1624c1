// Tells one subscriber about arriving and leaving drives.
#pragma once

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

} // namespace fodr
