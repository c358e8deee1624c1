#include "ntposix/ChangeWatch.h"

#include "ntposix/NoticeOrder.h"

namespace fodr::ntposix {

// False when it had ended before.
bool ChangeWatch::End(const Waiter &waiter, nt::NTSTATUS status)
{
    nt::NoticeOrder::State::Ended(waiter.delivery);
    if (waiter.call->End(status))
        return true;
    nt::NoticeOrder::State::NotEnded(waiter.delivery);
    return false;
}

void ChangeWatch::Report(uint32_t changes)
{
    if (!(changes & filter))
        return;
    const MutexLock guard(lock);
    while (!waiting.empty()) {
        const Waiter waiter = waiting.front();
        waiting.pop_front();
        if (End(waiter, nt::STATUS_NOTIFY_ENUM_DIR))
            return;
    }
    changed = true;
}

void ChangeWatch::Fail(nt::NTSTATUS status)
{
    const MutexLock guard(lock);
    failure = status;
    for (const Waiter &waiter : waiting)
        End(waiter, status);
    waiting.clear();
}

nt::NTSTATUS ChangeWatch::Wait(BlockedCall &call)
{
    {
        const MutexLock guard(lock);
        const Waiter waiter{&call, nt::NoticeOrder::State::OfThisThread()};
        nt::NoticeOrder::State::Waits(waiter.delivery);
        if (changed && End(waiter, nt::STATUS_NOTIFY_ENUM_DIR))
            changed = false;
        else if (failure)
            End(waiter, *failure);
        else
            waiting.push_back(waiter);
    }
    const nt::NTSTATUS ending = call.Wait();
    const MutexLock guard(lock);
    std::erase_if(waiting, [&call](const Waiter &waiter) { return waiter.call == &call; });
    return ending;
}

} // namespace fodr::ntposix
