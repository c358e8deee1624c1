// Watches a key of the settings store, also one that doesn't exist yet: then the nearest key above it.
#pragma once

#include "lib/misc/Mutex.h"
#include "runtime/OVMutex.h"
#include "runtime/OVPollThread.h"
#include "runtime/OVRegKey.h"
#include "runtime/OVRegValueWatcher.h"
#include "runtime/WkPtr.h"

#include <list>
#include <string>

namespace fodr {

// A change is told once it has settled: the notification isn't armed again for the length of kSettlingMS, so
// that changes in that time are one. Any thread may call; Run is the poll thread's. The lock of the poll
// thread may be taken under the watcher's own, never the other way round.
class OVRegKeyWatcher : public OVPollItem {
public:
    static constexpr int32_t kSettlingMS = 2000;

    // Opens what there is at once. `keyPath` as for OVRegKey.
    OVRegKeyWatcher(const std::string &keyPath, RegView keyView, bool subtree);
    ~OVRegKeyWatcher() override;

    // Watches on this thread from now on. False for null and when the thread doesn't take it.
    bool Start(const RCPtr<OVPollThread> &pollThread);
    // No call of OnKeyChanged is under way or comes after it, except when it is called from there.
    void Stop();

    // A value of the key as it is now, with `load`; else not yet loaded.
    RCPtr<OVRegValue> GetValue(const std::string &valueName, bool load) const;
    void AddValueWatcher(const RCPtr<OVRegValueWatcher> &watcher);
    const std::string &GetPath() const { return path; }
    RegView GetView() const { return view; }
    // Whether the key itself was there when last looked for.
    bool IsKeyFound() const;

    bool Run(bool timedOut) override;
    // The key, or what it holds, came, went or changed. Called without a lock held. False ends the watching.
    virtual bool OnKeyChanged();

private:
    bool OpenRegKey() REQUIRES(mutex);
    bool WatchRegKey() REQUIRES(mutex);
    bool IsNearerKeyThere() const REQUIRES(mutex);
    std::list<RCPtr<OVRegValueWatcher>> ReloadValues() REQUIRES(mutex);

    mutable OVMutex mutex;
    const std::string path;
    const RegView view;
    bool keyFound GUARDED_BY(mutex) = false;
    const bool watchSubtree;
    const RCPtr<OVEvent> changeEvent; // outlives the notifications of regKey
    RCPtr<OVRegKey> regKey GUARDED_BY(mutex);
    std::list<WkPtr<OVRegValueWatcher>> valueWatchers GUARDED_BY(mutex);
};

} // namespace fodr
