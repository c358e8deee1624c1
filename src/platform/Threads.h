// Waitable objects, locks, threads and calendar time of the system.
//
// A waitable is named by a handle, a plain number in a pointer: an event, or what
// DuplicateThreadHandle gives for a thread. Every handle is closed once. A wait that is under way keeps its
// objects alive, so a handle may be closed meanwhile. A closed or null handle makes an operation fail and
// does no harm, on Windows until its number is that of another object. All functions are safe from any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace fodr::platform {

inline constexpr uint32_t kWaitForever = 0xFFFFFFFF;

// ---- Waitable objects ----

using Waitable = void *;

// Null when there is none to be had. A name, if any, is null-terminated; unnamed where the system has no
// names.
Waitable CreateEventObject(bool manualReset, bool initiallySet, const char *name);
// A second handle to the same object; null for a bad handle.
Waitable DuplicateWaitable(Waitable handle);
bool CloseWaitable(Waitable handle);
// Signals the event. Waits that this satisfies are over with it, even when the event is reset at once.
bool SetEventObject(Waitable handle);
bool ResetEventObject(Waitable handle);

inline constexpr uint32_t kMaximumWaitables = 64;

enum class WaitStatus {
    Object,  // `index` is the signalled entry, the lowest of several; 0 when all were waited for
    Message, // a message is in the thread's queue; never on a system without such queues
    Alerted, // likewise with an I/O completion alert
    TimedOut,
    Failed,
};

struct WaitResult {
    WaitStatus status;
    uint32_t index;
};

struct WaitOptions {
    bool waitAll = false;
    bool messagesToo = false;
    bool alertable = false;
};

// Waits for one of the objects or for all. What ends the wait is taken from an auto-reset event, from all of
// them at one instant when all are waited for. An empty list fails, unless messages are waited for too. More
// than kMaximumWaitables fail.
WaitResult WaitForWaitables(const Waitable *handles, size_t count, uint32_t timeoutMS,
                            WaitOptions options = {});

// ---- Mutex ----

// Recursive mutex that notices when its holder's thread ended. Must not be destroyed while held or waited
// for.
class RecursiveMutex {
public:
    enum class Outcome { Acquired, Abandoned, TimedOut, Failed };

    explicit RecursiveMutex(const char *name = nullptr);
    ~RecursiveMutex();
    RecursiveMutex(const RecursiveMutex &) = delete;
    RecursiveMutex &operator=(const RecursiveMutex &) = delete;

    // Abandoned means acquired, from a holder that ended without a release. `*error` is set for Failed only.
    Outcome Acquire(uint32_t timeoutMS, int32_t *error);
    // False when the caller doesn't hold it.
    bool Release();

private:
    alignas(16) std::byte state[64]; // the twin's
};

// Threads of the system. All functions are safe from any thread.

// One started thread. Ends with JoinThread or DetachThread, one of them once.
struct ThreadRecord;

using ThreadFunction = void (*)(void *argument);

// Null when the system has no thread left; `function` is not called then.
ThreadRecord *StartThread(ThreadFunction function, void *argument);
// Waits until the thread has ended and frees the record. False for the caller's own thread, with the record
// kept.
bool JoinThread(ThreadRecord *thread);
// Lets the thread end by itself and frees the record. False, with the record kept, when the system refuses.
bool DetachThread(ThreadRecord *thread);
// A waitable that is signalled from the end of the thread on, however it ends. The caller closes it.
Waitable DuplicateThreadHandle(ThreadRecord *thread);

// The system's id of the calling thread; never 0.
uint32_t CurrentThreadId();
// What a debugger shows for the calling thread; cut where the system's names are short.
void SetCurrentThreadName(const char *name);

// What the system's component libraries want of a thread for as long as this lives; nothing on most systems.
class ThreadApartment {
public:
    ThreadApartment();
    ~ThreadApartment();
    ThreadApartment(const ThreadApartment &) = delete;
    ThreadApartment &operator=(const ThreadApartment &) = delete;

private:
    [[maybe_unused]] bool entered = false; // the twin's
};

// Calendar time. Any thread.

// The broken-down time of so many seconds since 1970-01-01 00:00 UTC, in UTC or in the local time zone.
std::tm BreakDownTime(int64_t seconds, bool utc);

struct LocalZone {
    std::string name;    // as it is called now, summer time told apart; may be empty
    int32_t biasMinutes; // local time plus this is UTC
};
LocalZone CurrentLocalZone();

} // namespace fodr::platform
