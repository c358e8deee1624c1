#include "host/EventQueue.h"

namespace fodr::host {

void EventQueue::Post(Event event)
{
    const MutexLock held(lock);
    events.push_back(std::move(event));
    posted.notify_one();
}

bool EventQueue::RunOne(Clock::time_point deadline)
{
    Event event;
    {
        const MutexLock held(lock);
        while (events.empty()) {
            if (deadline == Clock::time_point::max())
                posted.wait(lock);
            else if (posted.wait_until(lock, deadline) == std::cv_status::timeout && events.empty())
                return false;
        }
        event = std::move(events.front());
        events.pop_front();
    }
    event();
    return true;
}

} // namespace fodr::host
