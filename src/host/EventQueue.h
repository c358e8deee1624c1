// Work for one thread, given by any.
#pragma once

#include "lib/misc/Mutex.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>

namespace fodr::host {

class EventQueue {
public:
    using Clock = std::chrono::steady_clock;
    using Event = std::function<void()>;

    void Post(Event event);
    // Runs the next event, waiting for one until `deadline`. False when the time is over.
    bool RunOne(Clock::time_point deadline = Clock::time_point::max());

private:
    Mutex lock;
    std::condition_variable_any posted;
    std::deque<Event> events GUARDED_BY(lock);
};

} // namespace fodr::host
