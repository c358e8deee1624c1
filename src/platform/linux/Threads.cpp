#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Threads.h"

#include "platform/linux/WaitableObject.h"

#include <pthread.h>
#include <unistd.h>

#include <cstring>
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

} // namespace fodr::platform
