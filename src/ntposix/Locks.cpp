// NtLockFile and NtUnlockFile.
#include "ntposix/HandleTable.h"
#include "ntposix/OpenFile.h"
#include "platform/Nt.h"

namespace fodr::nt {

namespace {

// NT wants one of the two data rights, append alone isn't one, and a file.
NTSTATUS CheckLockable(const ntposix::OpenFileRef &open)
{
    if (!open)
        return STATUS_INVALID_HANDLE;
    if (!open->HasAccess(FILE_READ_DATA | FILE_WRITE_DATA))
        return STATUS_ACCESS_DENIED;
    return open->IsDirectory() ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

NTSTATUS Finish(IO_STATUS_BLOCK *ioStatus, NTSTATUS status)
{
    ioStatus->Status = status;
    ioStatus->Information = 0;
    return status;
}

} // namespace

NTSTATUS NtLockFile(HANDLE file, HANDLE, void *, void *, IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *byteOffset,
                    LARGE_INTEGER *length, uint32_t key, bool failImmediately, bool exclusive)
{
    const ntposix::OpenFileRef open = ntposix::HandleTable::Instance().Find(file);
    if (const NTSTATUS status = CheckLockable(open); IsError(status))
        return Finish(ioStatus, status);
    const ntposix::RangeLock wanted{.handle = &*open,
                                    .key = key,
                                    .exclusive = exclusive,
                                    .offset = static_cast<uint64_t>(byteOffset->QuadPart),
                                    .length = static_cast<uint64_t>(length->QuadPart),
                                    .fd = open->dataFd ? open->fd.Get() : -1};
    return Finish(ioStatus, open->object->locks.Lock(wanted, failImmediately, open->services.blockedCalls));
}

NTSTATUS NtUnlockFile(HANDLE file, IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *byteOffset,
                      LARGE_INTEGER *length, uint32_t key)
{
    const ntposix::OpenFileRef open = ntposix::HandleTable::Instance().Find(file);
    if (const NTSTATUS status = CheckLockable(open); IsError(status))
        return Finish(ioStatus, status);
    return Finish(ioStatus,
                  open->object->locks.Unlock(&*open, key, static_cast<uint64_t>(byteOffset->QuadPart),
                                             static_cast<uint64_t>(length->QuadPart)));
}

} // namespace fodr::nt
