#include "agent/fuse/NameGate.h"

#include <vector>

namespace fodr::agent {

bool NameGate::Admit(Entry entry)
{
    if (alone || (entry == Entry::Alone && inside != 0))
        return false;
    ++inside;
    alone = entry == Entry::Alone;
    return true;
}

bool NameGate::TryEnter(Entry entry)
{
    const MutexLock held(lock);
    return waiting.empty() && Admit(entry);
}

void NameGate::Enter(Entry entry, Waiter waiter)
{
    {
        const MutexLock held(lock);
        if (!waiting.empty() || !Admit(entry)) {
            waiting.push_back({entry, std::move(waiter)});
            return;
        }
    }
    waiter();
}

void NameGate::Leave(Entry entry)
{
    std::vector<Waiter> admitted;
    {
        const MutexLock held(lock);
        --inside;
        alone = alone && entry != Entry::Alone;
        while (!waiting.empty() && Admit(waiting.front().entry)) {
            admitted.push_back(std::move(waiting.front().waiter));
            waiting.pop_front();
        }
    }
    for (Waiter &waiter : admitted)
        waiter();
}

} // namespace fodr::agent
