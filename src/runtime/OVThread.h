// A thread that calls one function, over and over with a wait between, until it is asked to stop.
#pragma once

#include "runtime/OVEvent.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <string>

namespace fodr {

class OVThreadData;

// Any thread may call. An OVThread may be destroyed while its thread runs, also by that thread: the thread
// then ends by itself after the call it is in.
class OVThread : public RCObject {
public:
    // False ends the thread. `thread` is null once the OVThread is gone.
    using Callback = bool (*)(void *argument, OVThread *thread);

    explicit OVThread(const std::string &name);
    ~OVThread() override;

    // Returns when the thread runs. With `wakeOnMessages` a window message ends the wait between two calls.
    // False when it runs already or hasn't been waited for, for a null callback, or when no thread can be
    // made.
    bool Start(Callback callback, void *argument, uint32_t intervalMS, bool wakeOnMessages = false);
    // Asks the thread to end and waits for that; results of WaitForStop.
    bool Stop(uint32_t timeoutMS = kInfinite);
    // True when the thread has ended or there was none; it can be started again then. False on timeout, and
    // for the thread itself.
    bool WaitForStop(uint32_t timeoutMS = kInfinite);
    bool IsCurrentThread() const;
    // The wait after the call that runs now, or the next one, when it is shorter than the interval.
    void SetNextWaitMS(int32_t waitMS);

    OVEvent ExitEvent() const;   // signalled when the thread is asked to end
    OVEvent ThreadEvent() const; // signalled when the thread has ended; without a handle before a start

private:
    RCPtr<OVThreadData> data;
};

} // namespace fodr
