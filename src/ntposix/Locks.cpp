// NtLockFile and NtUnlockFile.
#include "ntposix/AdvisoryLocks.h"
#include "ntposix/HandleTable.h"
#include "ntposix/NtCall.h"
#include "ntposix/OpenFile.h"

namespace fodr::nt {

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
