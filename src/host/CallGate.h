// Calls into a plug-in, and the work that waits for one thread.
#pragma once

#include "lib/misc/Mutex.h"

#include <chrono>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

namespace fodr::host {

class HostChannel;

// Lets calls into a plug-in through until it is closed, and tells when the last of them is over. So that what
// a plug-in gave us (a sink, a callback) is never called after the plug-in has taken it back.
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
    Condition left;
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

// Which channel a plug-in is being called for, so that the functions of the boundary that name none can tell.
// Around every call into a plug-in.
class CallScope {
public:
    explicit CallScope(HostChannel *channel) : outer(current) { current = channel; }
    ~CallScope() { current = outer; }
    CallScope(const CallScope &) = delete;
    CallScope &operator=(const CallScope &) = delete;

    // Null outside such calls.
    static HostChannel *Current() { return current; }

private:
    HostChannel *const outer;
    static inline thread_local HostChannel *current = nullptr;
};

// Work for one thread, given by any.
class EventQueue {
public:
    using Clock = std::chrono::steady_clock;
    using Event = std::function<void()>;

    void Post(Event event);
    // Runs the next event, waiting for one until `deadline`. False when the time is over.
    bool RunOne(Clock::time_point deadline = Clock::time_point::max());

private:
    Mutex lock;
    Condition posted;
    std::deque<Event> events GUARDED_BY(lock);
};

} // namespace fodr::host
