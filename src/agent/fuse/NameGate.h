// Lets those who use a folder's names in, many at once, and those who have to take a name away for a moment,
// alone. First come, first served. Any thread; waiters are called outside the lock.
#pragma once

#include "agent/InlineFunction.h"
#include "lib/misc/Mutex.h"

#include <deque>

namespace fodr::agent {

class NameGate {
public:
    enum class Entry { Shared, Alone };
    using Waiter = InlineFunction<void()>;

    // True: entered. False: the gate is taken, and the way in is Enter.
    [[nodiscard]] bool TryEnter(Entry entry);
    // Calls the waiter when it has entered.
    void Enter(Entry entry, Waiter waiter);
    void Leave(Entry entry);

private:
    bool Admit(Entry entry) REQUIRES(lock);

    struct Waiting {
        Entry entry;
        Waiter waiter;
    };
    Mutex lock;
    size_t inside GUARDED_BY(lock) = 0;
    bool alone GUARDED_BY(lock) = false;
    std::deque<Waiting> waiting GUARDED_BY(lock);
};

} // namespace fodr::agent
