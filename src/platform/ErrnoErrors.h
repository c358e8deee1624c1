// The Windows errors that stand for errno values, wherever the C library has them.
#pragma once

#include "platform/SystemError.h"

#include <cerrno>

namespace fodr::platform {

struct ErrnoError {
    int errnoValue;
    uint32_t code;
};

// Of several values with one code the first is the plainest.
inline constexpr ErrnoError kErrnoErrors[] = {
    {0, kErrorSuccess},
    {ENOENT, kErrorFileNotFound},
    {ENOTDIR, kErrorPathNotFound},
    {EMFILE, kErrorTooManyOpenFiles},
    {ENFILE, kErrorTooManyOpenFiles},
    {EACCES, kErrorAccessDenied},
    {EPERM, kErrorAccessDenied},
    {EISDIR, kErrorAccessDenied},
    {EBADF, kErrorInvalidHandle},
    {ENOMEM, kErrorNotEnoughMemory},
    {ENODEV, kErrorInvalidDrive},
    {EXDEV, kErrorNotSameDevice},
    {EROFS, kErrorWriteProtect},
    {ENXIO, kErrorNotReady},
#ifdef ENOMEDIUM
    {ENOMEDIUM, kErrorNotReady},
#endif
    {ETXTBSY, kErrorSharingViolation},
    {EAGAIN, kErrorLockViolation},
    {EDEADLK, kErrorLockViolation},
    {ENOTSUP, kErrorNotSupported},
    {ENOSYS, kErrorNotSupported},
    {ENOTTY, kErrorNotSupported},
    {EHOSTUNREACH, kErrorBadNetPath},
    {ENETUNREACH, kErrorBadNetPath},
    {EEXIST, kErrorFileExists},
    {EINVAL, kErrorInvalidParameter},
    {EPIPE, kErrorBrokenPipe},
    {ENOSPC, kErrorDiskFull},
#ifdef EDQUOT
    {EDQUOT, kErrorDiskFull},
#endif
    {EFBIG, kErrorDiskFull},
    {ERANGE, kErrorInsufficientBuffer},
    {EILSEQ, kErrorInvalidName},
    {ENOTEMPTY, kErrorDirNotEmpty},
    {EBUSY, kErrorBusy},
    {ENAMETOOLONG, kErrorFilenameTooLong},
    {EIO, kErrorIoDevice},
    {ETIMEDOUT, kErrorTimeout},
    {ELOOP, kErrorCantResolveFilename},
};

inline uint32_t CodeOfErrno(int errnoValue)
{
    for (const ErrnoError &row : kErrnoErrors) {
        if (row.errnoValue == errnoValue)
            return row.code;
    }
    return kErrorGeneralFailure;
}

} // namespace fodr::platform
