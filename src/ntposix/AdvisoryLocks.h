// The advisory locks of one file: those of fcntl and flock, which an agent takes by NT locks where no data
// can be (FODR_LOCKS_*). The kernel's own locks of the handle's descriptor do the work, so programs of this
// machine and all agents see them alike. Any thread. Each FileObject holds one.
#pragma once

#include "lib/misc/LockRanges.h"
#include "lib/misc/Mutex.h"
#include "ntposix/BlockedCall.h"
#include "platform/NtRecords.h"
#include "platform/NtStatus.h"

#include <atomic>
#include <optional>
#include <vector>

namespace fodr::ntposix {

// What an NT range above the data stands for.
struct AdvisoryRange {
    enum class Kind { Bytes, Whole, Waits };
    Kind kind;
    uint64_t begin = 0; // real offsets, of Bytes
    uint64_t end = 0;   // FODR_LOCKS_SPAN: without an end
};
std::optional<AdvisoryRange> AdvisoryRangeOf(uint64_t offset, uint64_t length);

class AdvisoryLocks {
public:
    // The kernel's memory has no other limit for them. One more is STATUS_INSUFFICIENT_RESOURCES.
    static constexpr size_t kMostOfFile = 1024;
    static constexpr size_t kMostInAll = 65536;

    struct Holder {
        const void *handle; // identity of the open file
        int fd;             // open until ReleaseAll
    };
    // Replaces what the handle holds of the range, as fcntl and flock do.
    nt::NTSTATUS Lock(const Holder &holder, const AdvisoryRange &range, bool exclusive, bool failImmediately,
                      BlockedCalls &calls) EXCLUDES(lock);
    // Of Kind::Waits: ends those calls that wait on the handle. All else succeeds also where nothing is held.
    nt::NTSTATUS Unlock(const Holder &holder, const AdvisoryRange &range, BlockedCalls &calls) EXCLUDES(lock);
    // At the close of a handle, while its descriptor is still open and after BlockedCalls::Close.
    void ReleaseAll(const void *handle) EXCLUDES(lock);

    // The lock that keeps the handle from what it wants, if there is one; Type 0 says that there is none.
    static nt::NTSTATUS Query(int fd, nt::FODR_LOCK *asked);

private:
    struct Held {
        Holder holder;
        LockRanges bytes{};
        bool whole = false;
        size_t Count() const { return bytes.Count() + (whole ? 1 : 0); }
    };
    // Among those that wait, for as long as it lives.
    class Waiting {
    public:
        Waiting(AdvisoryLocks &advisoryLocks, BlockedCall *blocked);
        ~Waiting();
        Waiting(const Waiting &) = delete;
        Waiting &operator=(const Waiting &) = delete;

    private:
        AdvisoryLocks &locks;
        BlockedCall *const call;
    };
    size_t IndexOf(const void *handle) const REQUIRES(lock); // the count of all where it holds nothing
    nt::NTSTATUS Try(const Holder &holder, const AdvisoryRange &range, std::optional<bool> exclusive)
        REQUIRES(lock);
    nt::NTSTATUS Wait(const Holder &holder, const AdvisoryRange &range, bool exclusive, BlockedCalls &calls)
        EXCLUDES(lock);
    void CountAgain() REQUIRES(lock);

    Mutex lock; // before that of BlockedCalls
    std::vector<Held> held GUARDED_BY(lock);
    std::vector<BlockedCall *> waiters GUARDED_BY(lock);
    size_t count GUARDED_BY(lock) = 0;
    std::atomic<bool> used{false};
    static inline std::atomic<size_t> countInAll{0};
};

} // namespace fodr::ntposix
