// Calls that wait on an open handle (a change notification, a lock that isn't free) and how they are ended
// from outside: by what they wait for, by a cancel, by the close of the handle. Any thread.
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/NtStatus.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <vector>

namespace fodr::ntposix {

class BlockedCall;

// The waiting calls of one handle. Its lock comes before that of a call.
class BlockedCalls {
public:
    // Ends every call that waits now with STATUS_CANCELLED. False when none did.
    bool Cancel() EXCLUDES(lock);
    // Ends every waiting call, and each one that comes later, with the status that it names for a close.
    void Close() EXCLUDES(lock);
    bool IsClosed() const { return closed.load(); }

private:
    friend class BlockedCall;
    void Add(BlockedCall *call) EXCLUDES(lock);
    void Remove(BlockedCall *call) EXCLUDES(lock);

    Mutex lock;
    std::vector<BlockedCall *> calls GUARDED_BY(lock);
    std::atomic<bool> closed{false};
};

// One waiting call, on the stack of the thread that waits. Whoever keeps a pointer to it in order to end it
// does so under a lock of its own, under which the waiting thread takes the pointer away again before it
// leaves.
class BlockedCall {
public:
    BlockedCall(BlockedCalls &handleCalls, nt::NTSTATUS closeStatus);
    ~BlockedCall();
    BlockedCall(const BlockedCall &) = delete;
    BlockedCall &operator=(const BlockedCall &) = delete;

    // The first ending counts; false when there was one before.
    bool End(nt::NTSTATUS status) EXCLUDES(lock);
    // Makes one WaitFor return early, without an ending.
    void Nudge() EXCLUDES(lock);

    // The status of the ending, as soon as there is one.
    nt::NTSTATUS Wait() EXCLUDES(lock);
    // The status of the ending; none when the time, if there is one, ran out or a nudge came.
    std::optional<nt::NTSTATUS> WaitFor(std::optional<std::chrono::milliseconds> time) EXCLUDES(lock);
    bool HasEnded() EXCLUDES(lock);

private:
    friend class BlockedCalls;

    BlockedCalls &calls;
    const nt::NTSTATUS statusAtClose;
    Mutex lock;
    Condition ended;
    std::optional<nt::NTSTATUS> ending GUARDED_BY(lock);
    bool nudged GUARDED_BY(lock) = false;
};

} // namespace fodr::ntposix
