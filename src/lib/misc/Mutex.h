// A plain mutex that Clang's thread-safety analysis knows.
#pragma once

#include "lib/misc/ThreadSafety.h"

#include <mutex>

namespace fodr {

// lock and unlock make it serve std::condition_variable_any, too.
class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mutex.lock(); }
    void unlock() RELEASE() { mutex.unlock(); }

private:
    std::mutex mutex;
};

class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex &held) ACQUIRE(held) : mutex(held) { mutex.lock(); }
    ~MutexLock() RELEASE() { mutex.unlock(); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    Mutex &mutex;
};

} // namespace fodr
