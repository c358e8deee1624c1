// The objects behind waitable handles.
//
// One lock guards all of them. It is held for a few instructions, waits sleep on a condition variable of
// their own, and with one lock a wait for all objects takes them at one instant without ordering rules.
#pragma once

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/misc/Mutex.h"
#include "platform/Threads.h"

#include <cstddef>
#include <cstdint>

namespace fodr::platform {

struct Waiter;
struct WaitableObject;

// A place in the queue of one object.
struct WaitEntry {
    Waiter *waiter;
    WaitableObject *object;
    WaitEntry *next;
    WaitEntry *previous;
};

// One wait, on the stack of the waiting thread.
struct Waiter {
    Condition wake;
    WaitEntry *entries;
    uint32_t count;
    bool waitAll;
    bool satisfied = false;
    uint32_t index = 0;
};

struct WaitableObject {
    bool manualReset;
    bool isEvent; // a thread's object can't be set or reset by handle
    bool signalled;
    uint32_t references = 0; // handles and waits
    WaitEntry *firstWaiter = nullptr;
    WaitEntry *lastWaiter = nullptr;
};

// A waitable that only SignalThreadObject signals, for good.
Waitable CreateThreadObject();
void SignalThreadObject(Waitable handle);

} // namespace fodr::platform
