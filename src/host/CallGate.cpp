#include "host/CallGate.h"

#include <algorithm>

namespace fodr::host {

bool CallGate::Enter()
{
    const MutexLock held(lock);
    if (!closed)
        inside.push_back(std::this_thread::get_id());
    return !closed;
}

void CallGate::Leave()
{
    const MutexLock held(lock);
    inside.erase(std::find(inside.begin(), inside.end(), std::this_thread::get_id()));
    if (closed)
        left.notify_all();
}

void CallGate::CloseAndWait()
{
    const auto self = std::this_thread::get_id();
    const MutexLock held(lock);
    closed = true;
    while (std::any_of(inside.begin(), inside.end(), [self](std::thread::id id) { return id != self; }))
        left.wait(lock);
}

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
