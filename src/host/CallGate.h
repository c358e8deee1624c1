// Lets calls into a plug-in through until it is closed, and tells when the last of them is over. So that what
// a plug-in gave us (a sink, a callback) is never called after the plug-in has taken it back.
#pragma once

#include "lib/misc/Mutex.h"

#include <condition_variable>
#include <thread>
#include <vector>

namespace fodr::host {

class CallGate {
public:
    // False once it is closed: the call must not be made. Otherwise Leave follows it, on the same thread.
    [[nodiscard]] bool Enter();
    void Leave();
    // No call begins from now on. Returns when none is running, but for those of the calling thread itself: a
    // plug-in may take back what it is being called through.
    void CloseAndWait();

private:
    Mutex lock;
    std::condition_variable_any left;
    bool closed GUARDED_BY(lock) = false;
    std::vector<std::thread::id> inside GUARDED_BY(lock);
};

// One call, if the gate lets it through.
class GatedCall {
public:
    explicit GatedCall(CallGate &used) : gate(used), entered(used.Enter()) {}
    ~GatedCall()
    {
        if (entered)
            gate.Leave();
    }
    GatedCall(const GatedCall &) = delete;
    GatedCall &operator=(const GatedCall &) = delete;
    explicit operator bool() const { return entered; }

private:
    CallGate &gate;
    const bool entered;
};

} // namespace fodr::host
