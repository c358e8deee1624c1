#include "runtime/OVMutex.h"

#include "platform/Threads.h"
#include "runtime/LogCall.h"

#include <atomic>

namespace fodr {

// The holder alone writes the two fields. Others read them for a log line, or to see that they aren't the
// holder: the owner is written before the count that makes it one.
class OVMutexData : public RCObject {
public:
    explicit OVMutexData(const char *name) : mutex(name) {}

    void CountUp()
    {
        const int32_t count = lockCount.load(std::memory_order_relaxed) + 1;
        if (count == 1)
            ownerThread.store(platform::CurrentThreadId(), std::memory_order_relaxed);
        lockCount.store(count, std::memory_order_release);
    }
    // False when the caller doesn't hold the mutex.
    bool CountDown()
    {
        const int32_t count = lockCount.load(std::memory_order_acquire);
        if (count <= 0 || Owner() != platform::CurrentThreadId())
            return false;
        lockCount.store(count - 1, std::memory_order_release);
        return true;
    }
    uint32_t Owner() const { return ownerThread.load(std::memory_order_relaxed); }
    unsigned long long Address() const { return reinterpret_cast<uintptr_t>(this); } // for the log

    platform::RecursiveMutex mutex;
    std::atomic<uint32_t> ownerThread{0}; // who holds it, or was the last to
    std::atomic<int32_t> lockCount{0};
};

std::atomic<uint32_t> OVMutex::deadlockReportMS{30000};

OVMutex::OVMutex(bool, const std::string &name) : data(new OVMutexData(name.empty() ? nullptr : name.c_str()))
{}

OVMutex::~OVMutex() = default;

bool OVMutex::Acquire(uint32_t timeoutMS)
{
    using Outcome = platform::RecursiveMutex::Outcome;
    OVMutexData *mutexData = data.Get();
    int32_t error = 0;
    Outcome outcome = mutexData->mutex.Acquire(0, &error);
    RCPtr<OVMutexData> reference; // only a wait can be outlived by the object, so only a wait pays for one
    if (outcome == Outcome::TimedOut && timeoutMS != 0) {
        reference = data;
        outcome =
            mutexData->mutex.Acquire(timeoutMS == kInfinite ? deadlockReportMS.load() : timeoutMS, &error);
        if (outcome == Outcome::TimedOut && timeoutMS == kInfinite) {
            LOG_WARN("Possible deadlock trying to acquire lock 0x%016llX held by thread 0x%04x",
                     mutexData->Address(), mutexData->Owner());
            outcome = mutexData->mutex.Acquire(kInfinite, &error);
        }
    }
    switch (outcome) {
    case Outcome::TimedOut:
        return false;
    case Outcome::Failed:
        LOG_WARN("Error %d trying to acquire lock 0x%016llX held by thread 0x%04x", error,
                 mutexData->Address(), mutexData->Owner());
        return false;
    case Outcome::Abandoned:
        LOG_WARN("Acquired abandoned lock 0x%016llX previously held by thread 0x%04x", mutexData->Address(),
                 mutexData->Owner());
        mutexData->lockCount.store(0, std::memory_order_relaxed);
        break;
    case Outcome::Acquired:
        break;
    }
    mutexData->CountUp();
    return true;
}

bool OVMutex::Release()
{
    OVMutexData *mutexData = data.Get();
    // The platform isn't asked to release what isn't held, which checkers take for a mistake.
    return mutexData->CountDown() && mutexData->mutex.Release();
}

} // namespace fodr
