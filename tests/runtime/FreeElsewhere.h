// Whether a thread other than this one could have a mutex now.
#pragma once

#include "runtime/OVMutex.h"

#include <thread>

namespace fodr::test {

inline bool IsFreeElsewhere(OVMutex &mutex)
{
    bool acquired = false;
    std::thread([&] {
        if (mutex.Acquire(0)) {
            acquired = true;
            mutex.Release();
        }
    }).join();
    return acquired;
}

} // namespace fodr::test
