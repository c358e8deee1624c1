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

} // namespace fodr::host
