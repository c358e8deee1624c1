// The mutex: robust, so that the end of its holder is noticed, and recursive.
#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Sync.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>
#include <new>

namespace fodr::platform {

namespace {

pthread_mutex_t *Mutex(std::byte *state)
{
    return std::launder(reinterpret_cast<pthread_mutex_t *>(state));
}

// ThreadSanitizer doesn't know pthread_mutex_clocklock and would take a mutex it locked for a free one.
#if defined(__SANITIZE_THREAD__)
constexpr clockid_t kClock = CLOCK_REALTIME;
int TimedLock(pthread_mutex_t *mutex, const timespec *deadline)
{
    return pthread_mutex_timedlock(mutex, deadline);
}
#else
constexpr clockid_t kClock = CLOCK_MONOTONIC;
int TimedLock(pthread_mutex_t *mutex, const timespec *deadline)
{
    return pthread_mutex_clocklock(mutex, kClock, deadline);
}
#endif

timespec Deadline(uint32_t timeoutMS)
{
    timespec time;
    clock_gettime(kClock, &time);
    time.tv_sec += timeoutMS / 1000;
    time.tv_nsec += static_cast<long>(timeoutMS % 1000) * 1000000;
    if (time.tv_nsec >= 1000000000) {
        time.tv_nsec -= 1000000000;
        ++time.tv_sec;
    }
    return time;
}

int Wait(pthread_mutex_t *mutex, uint32_t timeoutMS)
{
    if (timeoutMS == 0)
        return EBUSY;
    if (timeoutMS == kWaitForever)
        return pthread_mutex_lock(mutex);
    const timespec deadline = Deadline(timeoutMS);
    return TimedLock(mutex, &deadline);
}

} // namespace

RecursiveMutex::RecursiveMutex(const char *)
{
    static_assert(sizeof(pthread_mutex_t) <= sizeof(state) && alignof(pthread_mutex_t) <= 16);
    auto *mutex = new (state) pthread_mutex_t;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

RecursiveMutex::~RecursiveMutex()
{
    // A robust mutex that its holder holds is linked into the thread's list: it must not vanish from under
    // it.
    if (pthread_mutex_destroy(Mutex(state)) == EBUSY) {
        while (pthread_mutex_unlock(Mutex(state)) == 0) {
        }
        pthread_mutex_destroy(Mutex(state));
    }
}

RecursiveMutex::Outcome RecursiveMutex::Acquire(uint32_t timeoutMS, int32_t *error)
{
    pthread_mutex_t *mutex = Mutex(state);
    int result = pthread_mutex_trylock(mutex);
    if (result == EBUSY)
        result = Wait(mutex, timeoutMS);
    switch (result) {
    case 0:
        return Outcome::Acquired;
    case EOWNERDEAD:
        pthread_mutex_consistent(mutex);
        return Outcome::Abandoned;
    case EBUSY:
    case ETIMEDOUT:
        return Outcome::TimedOut;
    default:
        *error = result;
        return Outcome::Failed;
    }
}

bool RecursiveMutex::Release()
{
    return pthread_mutex_unlock(Mutex(state)) == 0;
}

} // namespace fodr::platform
