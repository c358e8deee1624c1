#include "ntposix/LockTable.h"

#include "ntposix/AdvisoryLocks.h"
#include "ntposix/HandleTable.h"
#include "ntposix/NtCall.h"
#include "ntposix/OpenFile.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <optional>

namespace fodr::ntposix {

namespace {

constexpr uint64_t kLargestOffset = INT64_MAX;

int SetLock(int fd, short type, uint64_t offset, uint64_t length)
{
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(offset);
    // The kernel's length of 0 reaches to the last possible byte.
    range.l_len = length - 1 >= kLargestOffset - offset ? 0 : static_cast<off_t>(length);
    return fcntl(fd, F_OFD_SETLK, &range) == 0 ? 0 : errno;
}

} // namespace

bool SetProcessLock(int fd, ProcessLockType type, uint64_t offset, uint64_t length)
{
    if (fd < 0 || length == 0 || offset > kLargestOffset)
        return true;
    if (type == ProcessLockType::None) {
        SetLock(fd, F_UNLCK, offset, length);
        return true;
    }
    int error = EBADF;
    if (type == ProcessLockType::Exclusive)
        error = SetLock(fd, F_WRLCK, offset, length);
    if (error == EBADF)
        error = SetLock(fd, F_RDLCK, offset, length);
    return error != EAGAIN && error != EACCES;
}

namespace {

// The kernel has no wait for a lock of another process that a cancel could end, so such a lock is tried
// again.
constexpr std::chrono::milliseconds kFirstRetry{10};
constexpr std::chrono::milliseconds kLongestRetry{500};

// Whether any part of a range lies behind `position`. A point between two bytes has itself as its end.
bool EndsBehind(uint64_t offset, uint64_t length, uint64_t position)
{
    return length ? offset + (length - 1) >= position : offset > position;
}

bool Overlap(const RangeLock &held, uint64_t offset, uint64_t length)
{
    return EndsBehind(held.offset, held.length, offset) && EndsBehind(offset, length, held.offset);
}

bool SameOwner(const RangeLock &held, const void *handle, uint32_t key)
{
    return held.handle == handle && held.key == key;
}

// An exclusive lock bears no other, not even of its own handle. A shared one bears shared ones, and its own
// handle's exclusive one.
bool Conflict(const RangeLock &held, const RangeLock &wanted)
{
    if (!Overlap(held, wanted.offset, wanted.length))
        return false;
    if (wanted.exclusive)
        return true;
    return held.exclusive && !SameOwner(held, wanted.handle, wanted.key);
}

} // namespace

bool LockTable::ForbidsRead(const void *handle, uint32_t key, uint64_t offset, uint64_t length)
{
    return heldCount.load() != 0 && Forbids(handle, key, offset, length, false);
}

bool LockTable::ForbidsWrite(const void *handle, uint32_t key, uint64_t offset, uint64_t length)
{
    return heldCount.load() != 0 && Forbids(handle, key, offset, length, true);
}

bool LockTable::Forbids(const void *handle, uint32_t key, uint64_t offset, uint64_t length, bool write)
{
    if (length == 0)
        return false;
    const MutexLock guard(lock);
    for (const RangeLock &other : held) {
        // A shared lock keeps everybody from writing, also the handle that holds it.
        const bool forbids = other.exclusive ? !SameOwner(other, handle, key) : write;
        if (forbids && Overlap(other, offset, length))
            return true;
    }
    return false;
}

nt::NTSTATUS LockTable::Lock(const RangeLock &wanted, bool failImmediately, BlockedCalls &calls)
{
    if (wanted.length != 0 && wanted.offset + (wanted.length - 1) < wanted.offset)
        return nt::STATUS_INVALID_LOCK_RANGE;
    bool granted;
    {
        const MutexLock guard(lock);
        if (held.size() >= kMostOfFile || heldInAll.load() >= kMostInAll)
            return nt::STATUS_INSUFFICIENT_RESOURCES;
        granted = TryLock(wanted) == Outcome::Granted;
    }
    if (granted) {
        // A close that came between has released the handle's locks already, without this one.
        if (!calls.IsClosed())
            return nt::STATUS_SUCCESS;
        ReleaseAll(wanted.handle);
        return nt::STATUS_RANGE_NOT_LOCKED;
    }
    return failImmediately ? nt::STATUS_LOCK_NOT_GRANTED : WaitForLock(wanted, calls);
}

nt::NTSTATUS LockTable::WaitForLock(const RangeLock &wanted, BlockedCalls &calls)
{
    BlockedCall call(calls, nt::STATUS_RANGE_NOT_LOCKED);
    Waiter waiter{wanted, &call};
    {
        const MutexLock guard(lock);
        waiters.push_back(&waiter);
    }
    auto retry = kFirstRetry;
    for (;;) {
        std::optional<std::chrono::milliseconds> time;
        {
            const MutexLock guard(lock);
            if (Serve(waiter) == Outcome::HeldByProcess)
                time = retry;
        }
        if (const auto ending = call.WaitFor(time)) {
            const MutexLock guard(lock);
            std::erase(waiters, &waiter);
            return *ending;
        }
        retry = std::min(2 * retry, kLongestRetry);
    }
}

LockTable::Outcome LockTable::Serve(Waiter &waiter)
{
    if (waiter.call->HasEnded())
        return Outcome::Granted;
    const Outcome outcome = TryLock(waiter.wanted);
    if (outcome == Outcome::Granted && !waiter.call->End(nt::STATUS_SUCCESS))
        Remove(held.size() - 1); // cancelled in the same moment
    return outcome;
}

// Those that come first are served first. One that another process alone keeps out goes on trying by itself.
void LockTable::ServeWaiters()
{
    for (Waiter *waiter : waiters) {
        if (Serve(*waiter) == Outcome::HeldByProcess)
            waiter->call->Nudge();
    }
}

nt::NTSTATUS LockTable::Unlock(const void *handle, uint32_t key, uint64_t offset, uint64_t length)
{
    const MutexLock guard(lock);
    size_t found = held.size();
    for (size_t i = 0; i < held.size(); ++i) {
        const bool same =
            SameOwner(held[i], handle, key) && held[i].offset == offset && held[i].length == length;
        if (same && (found == held.size() || held[i].exclusive))
            found = i;
    }
    if (found == held.size())
        return nt::STATUS_RANGE_NOT_LOCKED;
    Remove(found);
    ServeWaiters();
    return nt::STATUS_SUCCESS;
}

void LockTable::ReleaseAll(const void *handle)
{
    if (heldCount.load() == 0)
        return;
    const MutexLock guard(lock);
    int fd = -1;
    std::erase_if(held, [&](const RangeLock &other) {
        if (other.handle != handle)
            return false;
        fd = other.fd;
        return true;
    });
    NoteCount();
    (void)SetProcessLock(fd, ProcessLockType::None, 0, UINT64_MAX);
    ServeWaiters();
}

void LockTable::NoteCount()
{
    const size_t before = heldCount.exchange(held.size());
    heldInAll += held.size() - before; // wraps around where it gets less
}

LockTable::Outcome LockTable::TryLock(const RangeLock &wanted)
{
    for (const RangeLock &other : held) {
        if (Conflict(other, wanted))
            return Outcome::HeldHere;
    }
    held.push_back(wanted);
    NoteCount();
    if (SyncProcessLocks(wanted))
        return Outcome::Granted;
    Remove(held.size() - 1);
    return Outcome::HeldByProcess;
}

void LockTable::Remove(size_t index)
{
    const RangeLock removed = held[index];
    held.erase(held.begin() + static_cast<std::ptrdiff_t>(index));
    NoteCount();
    (void)SyncProcessLocks(removed);
}

// The kernel keeps one lock a byte and descriptor, NT any number. So every part of the range that changed
// gets the strongest lock that the handle still has on it.
bool LockTable::SyncProcessLocks(const RangeLock &changed)
{
    if (changed.fd < 0 || changed.length == 0)
        return true;
    const uint64_t last = changed.offset + (changed.length - 1);
    std::vector<RangeLock> own;
    std::vector<uint64_t> starts{changed.offset};
    for (const RangeLock &other : held) {
        if (other.handle != changed.handle || other.length == 0 ||
            !Overlap(other, changed.offset, changed.length))
            continue;
        own.push_back(other);
        const uint64_t otherLast = other.offset + (other.length - 1);
        if (other.offset > changed.offset)
            starts.push_back(other.offset);
        if (otherLast < last)
            starts.push_back(otherLast + 1);
    }
    std::sort(starts.begin(), starts.end());
    bool granted = true;
    for (size_t i = 0; i < starts.size() && granted; ++i) {
        const uint64_t partLast = i + 1 < starts.size() ? starts[i + 1] - 1 : last;
        if (partLast < starts[i])
            continue; // two locks begin here
        auto type = ProcessLockType::None;
        for (const RangeLock &other : own) {
            if (Overlap(other, starts[i], 1))
                type = std::max(type, other.exclusive ? ProcessLockType::Exclusive : ProcessLockType::Shared);
        }
        granted = SetProcessLock(changed.fd, type, starts[i], partLast - starts[i] + 1);
    }
    return granted;
}

} // namespace fodr::ntposix

namespace fodr::nt {

// NtLockFile and NtUnlockFile.

using namespace ntposix;

namespace {

// NT wants one of the two data rights, append alone isn't one, and a file.
NTSTATUS CheckLockable(const OpenFileRef &open)
{
    if (!open)
        return STATUS_INVALID_HANDLE;
    if (!open->HasAccess(FILE_READ_DATA | FILE_WRITE_DATA))
        return STATUS_ACCESS_DENIED;
    return open->IsDirectory() ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

// Named streams have none.
std::optional<AdvisoryRange> AdvisoryRangeIn(const OpenFile &open, const LARGE_INTEGER *offset,
                                             const LARGE_INTEGER *length)
{
    if (open.stream || !open.dataFd)
        return std::nullopt;
    return AdvisoryRangeOf(static_cast<uint64_t>(offset->QuadPart), static_cast<uint64_t>(length->QuadPart));
}

AdvisoryLocks::Holder HolderOf(const OpenFile &open)
{
    return {.handle = &open, .fd = open.fd.Get()};
}

} // namespace

NTSTATUS NtLockFile(HANDLE file, HANDLE, void *, void *, IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *byteOffset,
                    LARGE_INTEGER *length, uint32_t key, bool failImmediately, bool exclusive)
{
    const OpenFileRef open = HandleTable::Instance().Find(file);
    if (const NTSTATUS status = CheckLockable(open); IsError(status))
        return Complete(ioStatus, status, 0);
    if (const auto advisory = AdvisoryRangeIn(*open, byteOffset, length)) {
        const NTSTATUS status = WithoutThrowing([&] {
            return open->object->advisoryLocks.Lock(HolderOf(*open), *advisory, exclusive, failImmediately,
                                                    open->services.blockedCalls);
        });
        return Complete(ioStatus, status, 0);
    }
    const RangeLock wanted{.handle = &*open,
                           .key = key,
                           .exclusive = exclusive,
                           .offset = static_cast<uint64_t>(byteOffset->QuadPart),
                           .length = static_cast<uint64_t>(length->QuadPart),
                           .fd = open->dataFd ? open->fd.Get() : -1};
    const NTSTATUS status = WithoutThrowing(
        [&] { return open->object->locks.Lock(wanted, failImmediately, open->services.blockedCalls); });
    return Complete(ioStatus, status, 0);
}

NTSTATUS NtUnlockFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *byteOffset,
                      LARGE_INTEGER *length, uint32_t key)
{
    const OpenFileRef open = HandleTable::Instance().Find(file);
    if (const NTSTATUS status = CheckLockable(open); IsError(status))
        return Complete(ioStatus, status, 0);
    const NTSTATUS status = WithoutThrowing([&] {
        if (const auto advisory = AdvisoryRangeIn(*open, byteOffset, length))
            return open->object->advisoryLocks.Unlock(HolderOf(*open), *advisory,
                                                      open->services.blockedCalls);
        return open->object->locks.Unlock(&*open, key, static_cast<uint64_t>(byteOffset->QuadPart),
                                          static_cast<uint64_t>(length->QuadPart));
    });
    return Complete(ioStatus, status, 0);
}

} // namespace fodr::nt
