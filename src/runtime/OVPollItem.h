// A small job for an OVPollThread, woken by an event, by a timeout, or by both.
#pragma once

#include "runtime/OVEvent.h"
#include "runtime/OVTimer.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace fodr {

class OVPollThread;

// Knows its thread by number only, so that it may outlive it. The operations may be called from any thread
// and from within Run; each holds the lock of the item's thread, if it has one.
class OVPollItem : public RCObject {
public:
    explicit OVPollItem(const std::string &itemName);

    // The job, called with no lock held. `timedOut` is false when the event fired. False takes the item off
    // its thread.
    virtual bool Run(bool timedOut);

    // Not owned: the event lives as long as it is set here. Null for none.
    void SetEvent(OVEvent *newEvent);
    // -1 for none. The time counts from the last run, or with `reset` from now.
    void SetTimeoutMS(int32_t ms, bool reset);
    // Disabling is counted: the item runs only after as many calls of Enable. With `wait` a run that is under
    // way is over then, except for a call from within it.
    void Disable(bool wait);
    // Whether the item may run now.
    bool Enable();
    // Stops the time between two runs; while it stands the item doesn't run.
    void Pause();
    void Resume();
    // Takes it off its thread, as OVPollThread::RemoveItem does. False when it is on none.
    bool Remove(bool wait);

    // Empty when it belongs to none.
    RCPtr<OVPollThread> GetPollThread();
    const std::string &GetName() const { return name; }
    int32_t GetTimeoutMS() const { return timeoutMS; }

private:
    friend class OVPollThread;

    const std::string name;
    // The rest is guarded by the lock of the item's thread.
    OVEvent *event = nullptr;
    OVElapsedTimer timer; // since the last run
    std::atomic<int32_t> timeoutMS{-1};
    int32_t disabled = 0;
    std::string timeoutText;
    std::atomic<uint64_t> owner{0}; // the number of its thread; read without the lock to find that
};

} // namespace fodr
