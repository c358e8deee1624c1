#include "ntposix/NtCall.h"

#include <cerrno>
#include <cstddef>
#include <iterator>

namespace fodr::ntposix {

using namespace nt;

namespace {

struct ErrnoStatus {
    int error;
    NTSTATUS status;
};

constexpr ErrnoStatus kErrnoStatus[] = {
    {ENOENT, STATUS_OBJECT_NAME_NOT_FOUND},
    {ENOTDIR, STATUS_OBJECT_PATH_NOT_FOUND},
    {EISDIR, STATUS_FILE_IS_A_DIRECTORY},
    {EEXIST, STATUS_OBJECT_NAME_COLLISION},
    {ENOTEMPTY, STATUS_DIRECTORY_NOT_EMPTY},
    {EACCES, STATUS_ACCESS_DENIED},
    {EPERM, STATUS_ACCESS_DENIED},
    {ENXIO, STATUS_ACCESS_DENIED}, // data of a socket or of a FIFO that nobody reads
    {ETXTBSY, STATUS_SHARING_VIOLATION},
    {EBUSY, STATUS_SHARING_VIOLATION},
    {EAGAIN, STATUS_SHARING_VIOLATION}, // another process has a lease on the file
    {EROFS, STATUS_MEDIA_WRITE_PROTECTED},
    {ENOSPC, STATUS_DISK_FULL},
    {EDQUOT, STATUS_DISK_FULL}, // what NTFS answers when a quota is used up
    {EFBIG, STATUS_FILE_TOO_LARGE},
    {EXDEV, STATUS_NOT_SAME_DEVICE},
    {ENAMETOOLONG, STATUS_NAME_TOO_LONG},
    {ELOOP, STATUS_REPARSE_POINT_NOT_RESOLVED},
    {EMFILE, STATUS_TOO_MANY_OPENED_FILES},
    {ENFILE, STATUS_TOO_MANY_OPENED_FILES},
    {EMLINK, STATUS_TOO_MANY_LINKS},
    {ENOMEM, STATUS_INSUFFICIENT_RESOURCES},
    {EIO, STATUS_IO_DEVICE_ERROR},
    {EBADF, STATUS_INVALID_HANDLE},
    {EINVAL, STATUS_INVALID_PARAMETER},
    {EOPNOTSUPP, STATUS_NOT_SUPPORTED},
    {ENOSYS, STATUS_NOT_SUPPORTED},
    {ESTALE, STATUS_FILE_CLOSED},
    {ENODEV, STATUS_DEVICE_REMOVED},
    {EINTR, STATUS_CANCELLED},
};

constexpr bool KeysAreUnique()
{
    for (size_t i = 0; i < std::size(kErrnoStatus); ++i) {
        for (size_t j = 0; j < i; ++j) {
            if (kErrnoStatus[i].error == kErrnoStatus[j].error)
                return false;
        }
    }
    return true;
}
static_assert(KeysAreUnique());

} // namespace

NTSTATUS StatusOfErrno(int error)
{
    for (const ErrnoStatus &entry : kErrnoStatus) {
        if (entry.error == error)
            return entry.status;
    }
    return STATUS_UNSUCCESSFUL;
}

} // namespace fodr::ntposix
