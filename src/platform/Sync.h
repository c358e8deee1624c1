// Locks and waitable objects of the system.
//
// A waitable is named by a handle, a plain number in a pointer: an event of this header, or what Threads.h
// gives for a thread. Every handle is closed once. A wait that is under way keeps its objects alive, so a
// handle may be closed meanwhile. A closed or null handle makes an operation fail and does no harm, on
// Windows until its number is that of another object. All functions are safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

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

} // namespace fodr::platform
