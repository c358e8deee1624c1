// Recursive mutex with a timeout and diagnostics: a lock that can't be had for 30 seconds is reported once.
#pragma once

#include "lib/misc/ThreadSafety.h"
#include "runtime/RCObject.h"
#include "runtime/RCPtr.h"

#include <cstdint>
#include <string>

namespace fodr {

class OVMutexData;

inline constexpr uint32_t kInfinite = 0xFFFFFFFF;

class CAPABILITY("mutex") OVMutex : public RCObject {
public:
    explicit OVMutex(bool initiallyOwned = false, const std::string &name = {});
    ~OVMutex() override;

    // False when the time ran out, silently, or on an error, with a log line.
    bool Acquire(uint32_t timeoutMS = kInfinite) TRY_ACQUIRE(true);
    // False when the caller doesn't hold the mutex.
    bool Release() RELEASE();

private:
    RCPtr<OVMutexData> data;
};

// Holds an OVMutex for a scope. The unlimited wait can't fail short of a broken mutex.
class SCOPED_CAPABILITY OVMutexLock {
public:
    explicit OVMutexLock(OVMutex &held) ACQUIRE(held) NO_THREAD_SAFETY_ANALYSIS : mutex(held)
    {
        mutex.Acquire();
    }
    ~OVMutexLock() RELEASE() NO_THREAD_SAFETY_ANALYSIS { mutex.Release(); }
    OVMutexLock(const OVMutexLock &) = delete;
    OVMutexLock &operator=(const OVMutexLock &) = delete;

private:
    OVMutex &mutex;
};

} // namespace fodr
