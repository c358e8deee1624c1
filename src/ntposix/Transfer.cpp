// NtReadFile and NtWriteFile.
#include "ntposix/Creator.h"
#include "ntposix/HandleTable.h"
#include "ntposix/NamedStream.h"
#include "ntposix/NtCall.h"

#include <algorithm>
#include <cerrno>
#include <sys/uio.h>

namespace fodr::nt {

using namespace ntposix;

namespace {

// Byte offsets with a meaning of their own (MS-FSA 2.1.5.3, 2.1.5.4).
constexpr int64_t kToEndOfFile = -1;
constexpr int64_t kAtPosition = -2;

constexpr uint32_t kSynchronous = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
// More than the kernel moves in one call.
constexpr size_t kLargestStep = 0x40000000;

struct Transferred {
    uint64_t bytes = 0;
    int error = 0; // of the step that ended it
};

// Without an offset a synchronous handle goes on where it was.
NTSTATUS ResolveOffset(const OpenFile &file, const LARGE_INTEGER *byteOffset, int64_t *offset)
{
    *offset = byteOffset ? byteOffset->QuadPart : kAtPosition;
    if (*offset == kAtPosition) {
        if ((file.options & kSynchronous) == 0)
            return STATUS_INVALID_PARAMETER;
        *offset = file.position.load();
    }
    return STATUS_SUCCESS;
}

NTSTATUS CheckTransfer(const OpenFile &file, uint32_t rights)
{
    if (!file.HasAccess(rights))
        return STATUS_ACCESS_DENIED;
    return file.kind == FileKind::kFile && file.dataFd ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST;
}

Transferred ReadAt(int fd, char *buffer, size_t length, int64_t offset)
{
    Transferred done;
    while (done.bytes < length) {
        const size_t step = std::min(length - done.bytes, kLargestStep);
        const ssize_t count = pread(fd, buffer + done.bytes, step, offset + static_cast<int64_t>(done.bytes));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            done.error = errno;
        else
            done.bytes += static_cast<size_t>(count);
        if (count < static_cast<ssize_t>(step))
            break;
    }
    return done;
}

// A short step isn't the end: the next one shows why.
Transferred WriteAt(int fd, const char *buffer, size_t length, int64_t offset, int flags)
{
    Transferred done;
    while (done.bytes < length) {
        const size_t step = std::min(length - done.bytes, kLargestStep);
        const int64_t at = offset + static_cast<int64_t>(done.bytes);
        const iovec part{.iov_base = const_cast<char *>(buffer + done.bytes), .iov_len = step};
        const ssize_t count =
            flags ? pwritev2(fd, &part, 1, at, flags) : pwrite(fd, part.iov_base, part.iov_len, at);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            done.error = errno;
            break;
        }
        done.bytes += static_cast<size_t>(count);
    }
    return done;
}

// All or nothing.
Transferred WriteStream(const OpenFile &file, const char *buffer, size_t length, int64_t offset, bool appends)
{
    Transferred done;
    done.error = file.stream->Change(file.File().fd.Get(), [&] {
        FileMetadata facts;
        if (const int error = StatDescriptor(file.fd.Get(), &facts); error != 0)
            return error;
        const int64_t at = appends ? facts.endOfFile : offset;
        if (at > kLongestStream || length > static_cast<uint64_t>(kLongestStream - at))
            return ENOSPC;
        done = WriteAt(file.fd.Get(), buffer, length, at, 0);
        return done.error;
    });
    if (done.error != 0)
        done.bytes = 0;
    return done;
}

NTSTATUS Read(OpenFile &file, IO_STATUS_BLOCK *ioStatus, void *buffer, uint32_t length,
              const LARGE_INTEGER *byteOffset, uint32_t key)
{
    int64_t offset;
    NTSTATUS status = CheckTransfer(file, FILE_READ_DATA);
    if (status == STATUS_SUCCESS)
        status = ResolveOffset(file, byteOffset, &offset);
    if (status != STATUS_SUCCESS)
        return Complete(ioStatus, status, 0);
    if (offset < 0)
        return Complete(ioStatus, STATUS_INVALID_PARAMETER, 0);
    if (file.object->locks.ForbidsRead(&file, key, static_cast<uint64_t>(offset), length))
        return Complete(ioStatus, STATUS_FILE_LOCK_CONFLICT, 0);
    const Transferred done = ReadAt(file.fd.Get(), static_cast<char *>(buffer), length, offset);
    if (done.error != 0 && done.bytes == 0)
        return Complete(ioStatus, StatusOfErrno(done.error), 0);
    if (done.bytes == 0 && length != 0)
        return Complete(ioStatus, STATUS_END_OF_FILE, 0);
    file.position = offset + static_cast<int64_t>(done.bytes);
    return Complete(ioStatus, STATUS_SUCCESS, done.bytes);
}

NTSTATUS Write(OpenFile &file, IO_STATUS_BLOCK *ioStatus, const void *buffer, uint32_t length,
               const LARGE_INTEGER *byteOffset, uint32_t key)
{
    int64_t offset;
    NTSTATUS status = CheckTransfer(file, kWriteRights);
    if (status == STATUS_SUCCESS)
        status = ResolveOffset(file, byteOffset, &offset);
    if (status != STATUS_SUCCESS)
        return Complete(ioStatus, status, 0);
    // A handle that may only append writes to the end whatever offset is given.
    const bool appends = offset == kToEndOfFile || (file.access & kWriteRights) == FILE_APPEND_DATA;
    if (appends) {
        FileMetadata facts;
        if (const int error = StatDescriptor(file.fd.Get(), &facts); error != 0)
            return Complete(ioStatus, StatusOfErrno(error), 0);
        offset = facts.endOfFile;
    }
    if (offset < 0 || offset > INT64_MAX - length)
        return Complete(ioStatus, STATUS_INVALID_PARAMETER, 0);
    if (file.object->locks.ForbidsWrite(&file, key, static_cast<uint64_t>(offset), length))
        return Complete(ioStatus, STATUS_FILE_LOCK_CONFLICT, 0);
    const int flags = (appends ? RWF_APPEND : 0) | (file.mode & FILE_WRITE_THROUGH ? RWF_DSYNC : 0);
    const auto bytes = static_cast<const char *>(buffer);
    const Transferred done = file.stream ? WriteStream(file, bytes, length, offset, appends)
                                         : WriteAt(file.fd.Get(), bytes, length, offset, flags);
    file.position = offset + static_cast<int64_t>(done.bytes);
    // What was written before the disk was full stays, and its length is given with the failure.
    return Complete(ioStatus, done.error == 0 ? STATUS_SUCCESS : StatusOfErrno(done.error), done.bytes);
}

} // namespace

NTSTATUS NtReadFile(HANDLE file, HANDLE, void *, void *, IO_STATUS_BLOCK *ioStatus, void *buffer,
                    uint32_t length, LARGE_INTEGER *byteOffset, uint32_t *key)
{
    const OpenFileRef open = HandleTable::Instance().Find(file);
    if (!open)
        return Complete(ioStatus, STATUS_INVALID_HANDLE, 0);
    return Read(*open, ioStatus, buffer, length, byteOffset, key ? *key : 0);
}

NTSTATUS NtWriteFile(HANDLE file, HANDLE, void *, void *, IO_STATUS_BLOCK *ioStatus, const void *buffer,
                     uint32_t length, LARGE_INTEGER *byteOffset, uint32_t *key)
{
    const OpenFileRef open = HandleTable::Instance().Find(file);
    if (!open)
        return Complete(ioStatus, STATUS_INVALID_HANDLE, 0);
    return Write(*open, ioStatus, buffer, length, byteOffset, key ? *key : 0);
}

} // namespace fodr::nt
