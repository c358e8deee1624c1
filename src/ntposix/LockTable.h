// Byte-range locks towards other processes: open-file-description locks of the kernel. Any thread.
#pragma once

#include "lib/misc/Mutex.h"
#include "ntposix/BlockedCall.h"
#include "platform/NtStatus.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace fodr::ntposix {

enum class ProcessLockType : uint8_t { None, Shared, Exclusive };

// Makes `type` the lock of the descriptor's open file on the range. False when a lock of somebody else is in
// the way. What the kernel can't lock stays unlocked: offsets beyond 2^63, a file system without locks, a
// descriptor that wasn't opened for it (an exclusive lock on one that only reads is taken as a shared one,
// which still keeps writers out).
[[nodiscard]] bool SetProcessLock(int fd, ProcessLockType type, uint64_t offset, uint64_t length);

// The NT byte-range locks of one file, between its open handles and towards other processes (MS-FSA 2.1.5.8,
// 2.1.5.9). Any thread. Each FileObject holds one; a file without locks pays one atomic load a transfer.

// A lock that is held or wanted. Offsets and lengths are unsigned, as NT takes them.
struct RangeLock {
    const void *handle; // identity of the open file that holds it
    uint32_t key;
    bool exclusive;
    uint64_t offset;
    uint64_t length; // 0 is a point between two bytes, which a lock around it keeps out
    int fd;          // the handle's descriptor, open until ReleaseAll; -1: no lock towards other processes
};

class LockTable {
public:
    // Every transfer looks at all locks of its file, and every lock at those it overlaps. One more is
    // answered STATUS_INSUFFICIENT_RESOURCES. Those that wait are limited elsewhere (TaskPool::kMostWaiting).
    static constexpr size_t kMostOfFile = 1024;
    static constexpr size_t kMostInAll = 65536;

    // Whether a lock forbids the transfer, which is then STATUS_FILE_LOCK_CONFLICT. The end of file must be
    // resolved before. A length of 0 never conflicts.
    bool ForbidsRead(const void *handle, uint32_t key, uint64_t offset, uint64_t length);
    bool ForbidsWrite(const void *handle, uint32_t key, uint64_t offset, uint64_t length);

    // STATUS_INVALID_LOCK_RANGE, STATUS_LOCK_NOT_GRANTED (only when it must not wait), or the status of what
    // ended the wait.
    nt::NTSTATUS Lock(const RangeLock &wanted, bool failImmediately, BlockedCalls &calls) EXCLUDES(lock);
    // STATUS_RANGE_NOT_LOCKED unless a lock of exactly this range, handle and key is held. Where an exclusive
    // and a shared one are, the exclusive one goes.
    nt::NTSTATUS Unlock(const void *handle, uint32_t key, uint64_t offset, uint64_t length) EXCLUDES(lock);
    // At the close of a handle, while its descriptor is still open and after BlockedCalls::Close.
    void ReleaseAll(const void *handle) EXCLUDES(lock);

private:
    enum class Outcome { Granted, HeldHere, HeldByProcess };
    struct Waiter {
        RangeLock wanted;
        BlockedCall *call;
    };

    bool Forbids(const void *handle, uint32_t key, uint64_t offset, uint64_t length, bool write)
        EXCLUDES(lock);
    nt::NTSTATUS WaitForLock(const RangeLock &wanted, BlockedCalls &calls) EXCLUDES(lock);
    Outcome TryLock(const RangeLock &wanted) REQUIRES(lock);
    Outcome Serve(Waiter &waiter) REQUIRES(lock);
    void ServeWaiters() REQUIRES(lock);
    void NoteCount() REQUIRES(lock);
    void Remove(size_t index) REQUIRES(lock);
    bool SyncProcessLocks(const RangeLock &changed) REQUIRES(lock);

    Mutex lock; // before that of BlockedCalls
    std::vector<RangeLock> held GUARDED_BY(lock);
    std::vector<Waiter *> waiters GUARDED_BY(lock); // in order of arrival
    std::atomic<size_t> heldCount{0};
    static inline std::atomic<size_t> heldInAll{0};
};

} // namespace fodr::ntposix
