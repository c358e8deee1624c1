// Threads of the system. All functions are safe from any thread.
#pragma once

#include "platform/Sync.h"

#include <cstdint>

namespace fodr::platform {

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

} // namespace fodr::platform
