#include "platform/SystemError.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <cerrno>
#include <cstring>

namespace fodr::platform {

namespace {

struct ErrnoError {
    int errnoValue;
    uint32_t code;
};

// The first row of a code gives the code its text.
constexpr ErrnoError kErrnoErrors[] = {
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
    {ENOMEDIUM, kErrorNotReady},
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
    {EDQUOT, kErrorDiskFull},
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

struct ErrorText {
    uint32_t code;
    const char *text;
};

constexpr ErrorText kOwnTexts[] = {
    {kErrorBadFormat, "Malformed path"},       {kErrorInvalidData, "Invalid data"},
    {kErrorGeneralFailure, "General failure"}, {kErrorBadPathname, "Invalid path"},
    {kErrorAlreadyExists, "Exists already"},   {kErrorMoreData, "More data available"},
    {kErrorNoMoreItems, "No more entries"},    {kErrorDirectory, "Invalid directory name"},
    {kErrorKeyDeleted, "The key was deleted"},
};

} // namespace

uint32_t LastSystemError()
{
    return SystemErrorFromErrno(errno);
}

uint32_t SystemErrorFromErrno(int errnoValue)
{
    for (const ErrnoError &row : kErrnoErrors) {
        if (row.errnoValue == errnoValue)
            return row.code;
    }
    return kErrorGeneralFailure;
}

std::string SystemErrorText(uint32_t code)
{
    for (const ErrorText &row : kOwnTexts) {
        if (row.code == code)
            return row.text;
    }
    for (const ErrnoError &row : kErrnoErrors) {
        if (row.code == code)
            return std::strerror(row.errnoValue);
    }
    return "Unknown error " + std::to_string(code);
}

} // namespace fodr::platform
