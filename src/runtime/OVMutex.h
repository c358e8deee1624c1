// Recursive mutex with a timeout and diagnostics: a lock that can't be had for 30 seconds is reported once.
#pragma once

#include "lib/misc/Mutex.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace fodr {

class OVMutexData;

inline constexpr uint32_t kInfinite = 0xFFFFFFFF;

// Any thread. The flag of the constructor has no effect: no mutex starts out owned.
class CAPABILITY("mutex") OVMutex : public RCObject {
public:
    explicit OVMutex(bool initiallyOwned = false, const std::string &name = {});
    ~OVMutex() override;

    // False when the time ran out, silently, or on an error, with a log line.
    bool Acquire(uint32_t timeoutMS = kInfinite) TRY_ACQUIRE(true);
    // False when the caller doesn't hold the mutex.
    bool Release() RELEASE();

    // How long an unlimited wait lasts before it is reported; 30 seconds, except where a test can't wait.
    static std::atomic<uint32_t> deadlockReportMS;

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

// Lets go of a held OVMutex for a scope.
class SCOPED_CAPABILITY OVMutexUnlock {
public:
    explicit OVMutexUnlock(OVMutex &held) RELEASE(held) NO_THREAD_SAFETY_ANALYSIS : mutex(held)
    {
        mutex.Release();
    }
    ~OVMutexUnlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS { mutex.Acquire(); }
    OVMutexUnlock(const OVMutexUnlock &) = delete;
    OVMutexUnlock &operator=(const OVMutexUnlock &) = delete;

private:
    OVMutex &mutex;
};

} // namespace fodr
