#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Threads.h"

#include "platform/linux/LibraryThreads.h"
#include "platform/linux/WaitableObject.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <memory>

namespace fodr::platform {

struct ThreadRecord {
    pthread_t thread{};
    Waitable handle = nullptr;

    ~ThreadRecord() { CloseWaitable(handle); }
};

namespace {

// What the new thread is given. Its destructor is the thread's last act, also when pthread_exit unwinds.
struct ThreadStart {
    ThreadFunction function;
    void *argument;
    Waitable handle;

    ~ThreadStart()
    {
        SignalThreadObject(handle);
        CloseWaitable(handle);
    }
};

void *ThreadEntry(void *argument)
{
    std::unique_ptr<ThreadStart> start(static_cast<ThreadStart *>(argument));
    start->function(start->argument);
    return nullptr;
}

} // namespace

ThreadRecord *StartThread(ThreadFunction function, void *argument)
{
    auto record = std::make_unique<ThreadRecord>();
    record->handle = CreateThreadObject();
    auto *start = new ThreadStart{function, argument, DuplicateWaitable(record->handle)};
    if (pthread_create(&record->thread, nullptr, ThreadEntry, start) != 0) {
        delete start;
        return nullptr;
    }
    return record.release();
}

bool JoinThread(ThreadRecord *thread)
{
    if (pthread_equal(thread->thread, pthread_self()) || pthread_join(thread->thread, nullptr) != 0)
        return false;
    delete thread;
    return true;
}

bool DetachThread(ThreadRecord *thread)
{
    if (pthread_detach(thread->thread) != 0)
        return false;
    delete thread;
    return true;
}

Waitable DuplicateThreadHandle(ThreadRecord *thread)
{
    return DuplicateWaitable(thread->handle);
}

uint32_t CurrentThreadId()
{
    // Asked for at every lock, so the system is asked once a thread.
    static thread_local uint32_t id = 0;
    if (id == 0)
        id = static_cast<uint32_t>(gettid());
    return id;
}

void SetCurrentThreadName(const char *name)
{
    char shortName[16] = {}; // the kernel's limit, terminator included
    strncpy(shortName, name, sizeof(shortName) - 1);
    pthread_setname_np(pthread_self(), shortName);
}

ThreadApartment::ThreadApartment()
{
    static_cast<void>(entered);
}
ThreadApartment::~ThreadApartment() = default;

namespace {

// The instrumentation of sanitizers needs larger frames.
#ifndef __has_feature
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) ||     \
    __has_feature(thread_sanitizer)
constexpr size_t kStackSize = 2048 * 1024;
#else
constexpr size_t kStackSize = 256 * 1024;
#endif

} // namespace

bool StartSmallThread(pthread_t *thread, void *(*entry)(void *), void *argument)
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    sigset_t blocked;
    sigset_t previous;
    sigfillset(&blocked);
    for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGPROF})
        sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &previous);
    const bool started = pthread_attr_setstacksize(&attributes, kStackSize) == 0 &&
                         pthread_create(thread, &attributes, entry, argument) == 0;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    pthread_attr_destroy(&attributes);
    return started;
}

std::tm BreakDownTime(int64_t seconds, bool utc)
{
    const time_t time = static_cast<time_t>(seconds);
    std::tm brokenDown{};
    if (utc)
        gmtime_r(&time, &brokenDown);
    else
        localtime_r(&time, &brokenDown);
    return brokenDown;
}

LocalZone CurrentLocalZone()
{
    const std::tm now = BreakDownTime(time(nullptr), false);
    return {now.tm_zone ? now.tm_zone : "", static_cast<int32_t>(-now.tm_gmtoff / 60)};
}

} // namespace fodr::platform
