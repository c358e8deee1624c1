#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/WaitableObject.h"

#include "platform/Threads.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <new>
#include <vector>

namespace fodr::platform {

namespace {

// Handles are a slot number and the slot's generation, so that a stale one isn't taken for its successor.
struct Slot {
    WaitableObject *object = nullptr;
    uint32_t generation = 1;
};

struct Table {
    Mutex lock; // also of the objects
    std::vector<Slot> slots GUARDED_BY(lock);
    std::vector<uint32_t> freeSlots GUARDED_BY(lock);
};

// Never destroyed: threads may still use events while the process ends.
Table &TheTable()
{
    static Table *const table = new Table;
    return *table;
}

Slot *FindSlot(Table &table, Waitable handle) REQUIRES(table.lock)
{
    const uint64_t number = reinterpret_cast<uintptr_t>(handle);
    const uint32_t index = static_cast<uint32_t>(number) - 1; // a null handle is out of range
    if (index >= table.slots.size())
        return nullptr;
    Slot &slot = table.slots[index];
    return slot.object && slot.generation == number >> 32 ? &slot : nullptr;
}

WaitableObject *FindObject(Table &table, Waitable handle) REQUIRES(table.lock)
{
    Slot *slot = FindSlot(table, handle);
    return slot ? slot->object : nullptr;
}

void Unreference(WaitableObject *object)
{
    if (--object->references == 0)
        delete object;
}

Waitable AddHandle(Table &table, WaitableObject *object) REQUIRES(table.lock)
{
    if (table.freeSlots.empty()) {
        table.slots.emplace_back();
        table.freeSlots.push_back(static_cast<uint32_t>(table.slots.size() - 1));
    }
    const uint32_t index = table.freeSlots.back();
    table.freeSlots.pop_back();
    Slot &slot = table.slots[index];
    slot.object = object;
    ++object->references;
    return reinterpret_cast<Waitable>(uintptr_t{slot.generation} << 32 | (index + 1));
}

Waitable CreateObject(bool manualReset, bool isEvent, bool signalled)
{
    Table &table = TheTable();
    const MutexLock guard(table.lock);
    return AddHandle(table, new WaitableObject{manualReset, isEvent, signalled});
}

// Ends the wait if the objects allow it, and takes what ended it from the auto-reset ones.
bool TrySatisfy(Waiter &waiter)
{
    auto take = [](WaitableObject &object) { object.signalled = object.signalled && object.manualReset; };
    if (waiter.waitAll) {
        for (uint32_t i = 0; i < waiter.count; ++i) {
            if (!waiter.entries[i].object->signalled)
                return false;
        }
        for (uint32_t i = 0; i < waiter.count; ++i)
            take(*waiter.entries[i].object);
        waiter.satisfied = waiter.count != 0;
        return waiter.satisfied;
    }
    for (uint32_t i = 0; i < waiter.count; ++i) {
        if (waiter.entries[i].object->signalled) {
            take(*waiter.entries[i].object);
            waiter.satisfied = true;
            waiter.index = i;
            return true;
        }
    }
    return false;
}

// Satisfies waits here rather than letting woken threads look for themselves: a reset that follows at once
// takes nothing back from them, and an auto-reset event wakes one thread only, the longest waiting.
void Signal(WaitableObject &object)
{
    object.signalled = true;
    for (WaitEntry *entry = object.firstWaiter; entry && object.signalled; entry = entry->next) {
        if (!entry->waiter->satisfied && TrySatisfy(*entry->waiter))
            entry->waiter->wake.notify_one();
    }
}

void Enqueue(WaitEntry &entry)
{
    WaitableObject &object = *entry.object;
    entry.next = nullptr;
    entry.previous = object.lastWaiter;
    (object.lastWaiter ? object.lastWaiter->next : object.firstWaiter) = &entry;
    object.lastWaiter = &entry;
}

void Dequeue(WaitEntry &entry)
{
    WaitableObject &object = *entry.object;
    (entry.previous ? entry.previous->next : object.firstWaiter) = entry.next;
    (entry.next ? entry.next->previous : object.lastWaiter) = entry.previous;
}

void Sleep(Mutex &lock, Waiter &waiter, uint32_t timeoutMS) REQUIRES(lock)
{
    for (uint32_t i = 0; i < waiter.count; ++i) {
        ++waiter.entries[i].object->references;
        Enqueue(waiter.entries[i]);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    while (!waiter.satisfied) {
        if (timeoutMS == kWaitForever)
            waiter.wake.wait(lock);
        else if (waiter.wake.wait_until(lock, end) == std::cv_status::timeout)
            break;
    }
    for (uint32_t i = 0; i < waiter.count; ++i) {
        Dequeue(waiter.entries[i]);
        Unreference(waiter.entries[i].object);
    }
}

} // namespace

Waitable CreateEventObject(bool manualReset, bool initiallySet, const char *)
{
    return CreateObject(manualReset, true, initiallySet);
}

Waitable CreateThreadObject()
{
    return CreateObject(true, false, false);
}

Waitable DuplicateWaitable(Waitable handle)
{
    Table &table = TheTable();
    const MutexLock guard(table.lock);
    WaitableObject *object = FindObject(table, handle);
    return object ? AddHandle(table, object) : nullptr;
}

bool CloseWaitable(Waitable handle)
{
    Table &table = TheTable();
    const MutexLock guard(table.lock);
    Slot *slot = FindSlot(table, handle);
    if (!slot)
        return false;
    Unreference(slot->object);
    slot->object = nullptr;
    ++slot->generation;
    table.freeSlots.push_back(static_cast<uint32_t>(slot - table.slots.data()));
    return true;
}

bool SetEventObject(Waitable handle)
{
    Table &table = TheTable();
    const MutexLock guard(table.lock);
    WaitableObject *object = FindObject(table, handle);
    if (!object || !object->isEvent)
        return false;
    Signal(*object);
    return true;
}

bool ResetEventObject(Waitable handle)
{
    Table &table = TheTable();
    const MutexLock guard(table.lock);
    WaitableObject *object = FindObject(table, handle);
    if (!object || !object->isEvent)
        return false;
    object->signalled = false;
    return true;
}

void SignalThreadObject(Waitable handle)
{
    Table &table = TheTable();
    const MutexLock guard(table.lock);
    if (WaitableObject *object = FindObject(table, handle))
        Signal(*object);
}

WaitResult WaitForWaitables(const Waitable *handles, size_t count, uint32_t timeoutMS, WaitOptions options)
{
    if (count > kMaximumWaitables || (count == 0 && !options.messagesToo))
        return {WaitStatus::Failed, 0};
    WaitEntry entries[kMaximumWaitables];
    Waiter waiter{
        .wake = {}, .entries = entries, .count = static_cast<uint32_t>(count), .waitAll = options.waitAll};
    Table &table = TheTable();
    const MutexLock held(table.lock);
    for (size_t i = 0; i < count; ++i) {
        entries[i].waiter = &waiter;
        entries[i].object = FindObject(table, handles[i]);
        if (!entries[i].object)
            return {WaitStatus::Failed, 0};
    }
    if (!TrySatisfy(waiter) && timeoutMS != 0)
        Sleep(table.lock, waiter, timeoutMS);
    return waiter.satisfied ? WaitResult{WaitStatus::Object, waiter.index}
                            : WaitResult{WaitStatus::TimedOut, 0};
}

// The mutex: robust, so that the end of its holder is noticed, and recursive.

namespace {

pthread_mutex_t *RobustMutex(std::byte *state)
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
    if (pthread_mutex_destroy(RobustMutex(state)) == EBUSY) {
        while (pthread_mutex_unlock(RobustMutex(state)) == 0) {
        }
        pthread_mutex_destroy(RobustMutex(state));
    }
}

RecursiveMutex::Outcome RecursiveMutex::Acquire(uint32_t timeoutMS, int32_t *error)
{
    pthread_mutex_t *mutex = RobustMutex(state);
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
    return pthread_mutex_unlock(RobustMutex(state)) == 0;
}

} // namespace fodr::platform
