#include "ntposix/AdvisoryLocks.h"

#include "ntposix/NtCall.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <sys/file.h>

namespace fodr::ntposix {

using namespace nt;

namespace {

// The kernel has no wait for a lock that a cancel could end, so a lock of another process is tried again.
// Handles of this process tell each other.
constexpr std::chrono::milliseconds kFirstRetry{5};
constexpr std::chrono::milliseconds kLongestRetry{100};

struct flock KernelRange(uint64_t begin, uint64_t end, short type)
{
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(begin);
    range.l_len = end >= FODR_LOCKS_SPAN ? 0 : static_cast<off_t>(end - begin);
    return range;
}

int SetBytes(int fd, const AdvisoryRange &wanted, std::optional<bool> exclusive)
{
    const int type = exclusive ? (*exclusive ? F_WRLCK : F_RDLCK) : F_UNLCK;
    struct flock range = KernelRange(wanted.begin, wanted.end, static_cast<short>(type));
    return fcntl(fd, F_OFD_SETLK, &range) == 0 ? 0 : errno;
}

int SetWhole(int fd, std::optional<bool> exclusive)
{
    const int type = exclusive ? (*exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB : LOCK_UN;
    return flock(fd, type) == 0 ? 0 : errno;
}

NTSTATUS StatusOfLocking(int error)
{
    switch (error) {
    case 0:
        return STATUS_SUCCESS;
    case EAGAIN:
    case EACCES:
        return STATUS_LOCK_NOT_GRANTED;
    case EBADF: // the handle hasn't the right that fcntl wants
        return STATUS_ACCESS_DENIED;
    case ENOLCK:
        return STATUS_INSUFFICIENT_RESOURCES;
    default:
        return StatusOfErrno(error);
    }
}

} // namespace

std::optional<AdvisoryRange> AdvisoryRangeOf(uint64_t offset, uint64_t length)
{
    using Kind = AdvisoryRange::Kind;
    if (offset == FODR_LOCK_WHOLE && length == 1)
        return AdvisoryRange{Kind::Whole};
    if (offset == FODR_LOCK_WAITS && length == 1)
        return AdvisoryRange{Kind::Waits};
    const uint64_t begin = offset - FODR_LOCKS_BASE;
    if (offset < FODR_LOCKS_BASE || begin >= FODR_LOCKS_SPAN || length == 0 ||
        length > FODR_LOCKS_SPAN - begin)
        return std::nullopt;
    return AdvisoryRange{Kind::Bytes, begin, begin + length};
}

NTSTATUS AdvisoryLocks::Lock(const Holder &holder, const AdvisoryRange &range, bool exclusive,
                             bool failImmediately, BlockedCalls &calls)
{
    if (range.kind == AdvisoryRange::Kind::Waits)
        return STATUS_INVALID_PARAMETER;
    used = true;
    NTSTATUS status;
    {
        const MutexLock guard(lock);
        status = Try(holder, range, exclusive);
    }
    if (status == STATUS_LOCK_NOT_GRANTED && !failImmediately)
        status = Wait(holder, range, exclusive, calls);
    // A close that came between has released the handle's locks already, without this one.
    if (IsError(status) || !calls.IsClosed())
        return status;
    ReleaseAll(holder.handle);
    return STATUS_RANGE_NOT_LOCKED;
}

NTSTATUS AdvisoryLocks::Wait(const Holder &holder, const AdvisoryRange &range, bool exclusive,
                             BlockedCalls &calls)
{
    BlockedCall call(calls, STATUS_RANGE_NOT_LOCKED);
    const Waiting waiting(*this, &call);
    auto retry = kFirstRetry;
    for (;;) {
        {
            const MutexLock guard(lock);
            const NTSTATUS status = Try(holder, range, exclusive);
            if (status != STATUS_LOCK_NOT_GRANTED)
                return status;
        }
        if (const auto ending = call.WaitFor(retry))
            return *ending;
        retry = std::min(2 * retry, kLongestRetry);
    }
}

AdvisoryLocks::Waiting::Waiting(AdvisoryLocks &advisoryLocks, BlockedCall *blocked)
    : locks(advisoryLocks), call(blocked)
{
    const MutexLock guard(locks.lock);
    locks.waiters.push_back(call);
}

AdvisoryLocks::Waiting::~Waiting()
{
    const MutexLock guard(locks.lock);
    std::erase(locks.waiters, call);
}

NTSTATUS AdvisoryLocks::Unlock(const Holder &holder, const AdvisoryRange &range, BlockedCalls &calls)
{
    if (range.kind == AdvisoryRange::Kind::Waits) {
        (void)calls.Cancel();
        return STATUS_SUCCESS;
    }
    if (!used)
        return STATUS_SUCCESS;
    const MutexLock guard(lock);
    return Try(holder, range, std::nullopt);
}

size_t AdvisoryLocks::IndexOf(const void *handle) const
{
    const auto found =
        std::ranges::find_if(held, [&](const Held &one) { return one.holder.handle == handle; });
    return static_cast<size_t>(found - held.begin());
}

// A lock that is given up, or made a shared one, may be what others wait for.
NTSTATUS AdvisoryLocks::Try(const Holder &holder, const AdvisoryRange &range, std::optional<bool> exclusive)
{
    const size_t index = IndexOf(holder.handle);
    Held next = index < held.size() ? held[index] : Held{.holder = holder};
    const size_t before = next.Count();
    const bool whole = range.kind == AdvisoryRange::Kind::Whole;
    if (whole)
        next.whole = exclusive.has_value();
    else
        next.bytes.Set(range.begin, range.end, exclusive);
    if (next.Count() > before && (count + next.Count() - before > kMostOfFile ||
                                  countInAll.load() + next.Count() - before > kMostInAll))
        return STATUS_INSUFFICIENT_RESOURCES;
    held.reserve(held.size() + 1); // nothing may fail once the kernel has done it
    const int error = whole ? SetWhole(holder.fd, exclusive) : SetBytes(holder.fd, range, exclusive);
    if (error != 0 && !whole)
        return StatusOfLocking(error);
    next.whole = next.whole && error == 0; // flock loses what it can't change
    if (index < held.size())
        held[index] = std::move(next);
    else
        held.push_back(std::move(next));
    CountAgain();
    if (!exclusive || !*exclusive || error != 0) {
        for (BlockedCall *waiter : waiters)
            waiter->Nudge();
    }
    return StatusOfLocking(error);
}

void AdvisoryLocks::CountAgain()
{
    std::erase_if(held, [](const Held &one) { return one.Count() == 0; });
    size_t now = 0;
    for (const Held &one : held)
        now += one.Count();
    countInAll += now - count; // wraps around where it gets less
    count = now;
}

void AdvisoryLocks::ReleaseAll(const void *handle)
{
    if (!used)
        return;
    const MutexLock guard(lock);
    const size_t index = IndexOf(handle);
    if (index == held.size())
        return;
    const Holder holder = held[index].holder;
    const bool whole = held[index].whole;
    (void)Try(holder, {AdvisoryRange::Kind::Bytes, 0, FODR_LOCKS_SPAN}, std::nullopt);
    if (whole)
        (void)Try(holder, {AdvisoryRange::Kind::Whole}, std::nullopt);
}

NTSTATUS AdvisoryLocks::Query(int fd, FODR_LOCK *asked)
{
    if (asked->Offset >= FODR_LOCKS_SPAN || asked->Length == 0 ||
        asked->Length > FODR_LOCKS_SPAN - asked->Offset ||
        (asked->Type != FODR_LOCK_SHARED && asked->Type != FODR_LOCK_EXCLUSIVE))
        return STATUS_INVALID_PARAMETER;
    const int type = asked->Type == FODR_LOCK_EXCLUSIVE ? F_WRLCK : F_RDLCK;
    struct flock range = KernelRange(asked->Offset, asked->Offset + asked->Length, static_cast<short>(type));
    if (fcntl(fd, F_OFD_GETLK, &range) != 0)
        return StatusOfLocking(errno);
    *asked = {};
    if (range.l_type == F_UNLCK)
        return STATUS_SUCCESS;
    asked->Type = range.l_type == F_WRLCK ? FODR_LOCK_EXCLUSIVE : FODR_LOCK_SHARED;
    asked->Offset = std::min(static_cast<uint64_t>(range.l_start), FODR_LOCKS_SPAN - 1);
    const uint64_t rest = FODR_LOCKS_SPAN - asked->Offset;
    asked->Length = range.l_len == 0 ? rest : std::min(static_cast<uint64_t>(range.l_len), rest);
    return STATUS_SUCCESS;
}

} // namespace fodr::ntposix
