#include "ntposix/FileRanges.h"

#include "ntposix/DeviceControl.h"
#include "ntposix/HandleTable.h"
#include "ntposix/NtCall.h"
#include "platform/NtRecords.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace fodr::ntposix {

int SetEndOfFile(int fd, int64_t size)
{
    int result;
    do {
        result = ftruncate(fd, size);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

namespace {

// A file system takes what it has before it finds that it has too little, and would keep it: the disk would
// be full for everybody. So the free space is looked at first, where it is known.
int CheckSpace(int fd, int64_t offset, int64_t length)
{
    const int64_t size = offset + length;
    struct stat stat;
    struct statvfs volume;
    if (fstat(fd, &stat) != 0 || fstatvfs(fd, &volume) != 0)
        return errno;
    const int64_t held = static_cast<int64_t>(stat.st_blocks) * 512;
    const uint64_t wanted = size > held ? static_cast<uint64_t>(std::min(size - held, length)) : 0;
    if (wanted != 0 && volume.f_blocks != 0 && wanted / volume.f_frsize >= volume.f_bavail)
        return ENOSPC;
    return 0;
}

} // namespace

int AllocateFileRange(int fd, int mode, int64_t offset, int64_t length)
{
    if (const int error = CheckSpace(fd, offset, length))
        return error;
    int result;
    do {
        result = fallocate(fd, mode, offset, length);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

int AllocateSpace(int fd, int64_t size)
{
    const int error = AllocateFileRange(fd, FALLOC_FL_KEEP_SIZE, 0, size);
    return error == EOPNOTSUPP || error == ENOSYS ? 0 : error;
}

int SetAllocation(int fd, int64_t size)
{
    struct stat stat;
    if (fstat(fd, &stat) != 0)
        return errno;
    if (size < stat.st_size)
        return SetEndOfFile(fd, size);
    return size > stat.st_size ? AllocateSpace(fd, size) : 0;
}

// Controls that reserve space in a file and copy bytes from one to another without moving them.

using namespace nt;

namespace {

// A copy stops here, so that a request ends in time; the caller asks for the rest.
constexpr int64_t kLongestCopy = 64 << 20;

bool IsRange(int64_t offset, int64_t length)
{
    return offset >= 0 && length > 0 && length <= INT64_MAX - offset;
}

bool MayTransfer(OpenFile &open, int64_t offset, int64_t length, bool write)
{
    LockTable &locks = open.object->locks;
    const auto from = static_cast<uint64_t>(offset);
    const auto count = static_cast<uint64_t>(length);
    return !(write ? locks.ForbidsWrite(&open, 0, from, count) : locks.ForbidsRead(&open, 0, from, count));
}

// Where this can't be done the asker copies by reading and writing.
NTSTATUS StatusOfCopy(int error)
{
    const bool unable = error == EXDEV || error == EINVAL || error == ENOSYS || error == EBADF;
    return unable ? STATUS_NOT_SUPPORTED : StatusOfErrno(error);
}

} // namespace

NTSTATUS AllocateRange(Control &control)
{
    static_assert(FODR_KEEP_SIZE == FALLOC_FL_KEEP_SIZE && FODR_ZERO_RANGE == FALLOC_FL_ZERO_RANGE);
    FODR_ALLOCATION wanted;
    if (!control.Read(&wanted) || !IsRange(wanted.Offset, wanted.Length) ||
        (wanted.Mode & ~(FODR_KEEP_SIZE | FODR_ZERO_RANGE)) != 0 || control.file.kind != FileKind::kFile)
        return STATUS_INVALID_PARAMETER;
    if (!MayTransfer(control.file, wanted.Offset, wanted.Length, true))
        return STATUS_FILE_LOCK_CONFLICT;
    const int error =
        AllocateFileRange(control.file.fd.Get(), static_cast<int>(wanted.Mode), wanted.Offset, wanted.Length);
    return error ? StatusOfErrno(error) : STATUS_SUCCESS;
}

NTSTATUS CopyRange(Control &control)
{
    FODR_RANGE_COPY wanted;
    if (!control.Read(&wanted) || !IsRange(wanted.SourceOffset, wanted.Length) ||
        !IsRange(wanted.TargetOffset, wanted.Length) || control.file.kind != FileKind::kFile)
        return STATUS_INVALID_PARAMETER;
    if (control.output.size() < sizeof(uint64_t))
        return STATUS_BUFFER_TOO_SMALL;
    const OpenFileRef source =
        HandleTable::Instance().Find(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(wanted.Source)));
    if (!source)
        return STATUS_INVALID_HANDLE;
    if (!source->HasAccess(FILE_READ_DATA))
        return STATUS_ACCESS_DENIED;
    if (source->kind != FileKind::kFile || source->stream)
        return STATUS_INVALID_PARAMETER;
    const int64_t length = std::min(wanted.Length, kLongestCopy);
    if (!MayTransfer(*source, wanted.SourceOffset, length, false) ||
        !MayTransfer(control.file, wanted.TargetOffset, length, true))
        return STATUS_FILE_LOCK_CONFLICT;
    ssize_t copied;
    do {
        copied = copy_file_range(source->fd.Get(), &wanted.SourceOffset, control.file.fd.Get(),
                                 &wanted.TargetOffset, static_cast<size_t>(length), 0);
    } while (copied < 0 && errno == EINTR);
    if (copied < 0)
        return StatusOfCopy(errno);
    const auto count = static_cast<uint64_t>(copied);
    (void)control.Write(&count, sizeof(count));
    return STATUS_SUCCESS;
}

} // namespace fodr::ntposix
