// System errors in Windows' numbering, which is what the logic compares with and logs.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

namespace fodr::platform {

// MS-ERREF 2.2.
inline constexpr uint32_t kErrorSuccess = 0;
inline constexpr uint32_t kErrorFileNotFound = 2;
inline constexpr uint32_t kErrorPathNotFound = 3;
inline constexpr uint32_t kErrorTooManyOpenFiles = 4;
inline constexpr uint32_t kErrorAccessDenied = 5;
inline constexpr uint32_t kErrorInvalidHandle = 6;
inline constexpr uint32_t kErrorNotEnoughMemory = 8;
inline constexpr uint32_t kErrorBadFormat = 11;
inline constexpr uint32_t kErrorInvalidData = 13;
inline constexpr uint32_t kErrorInvalidDrive = 15;
inline constexpr uint32_t kErrorNotSameDevice = 17;
inline constexpr uint32_t kErrorWriteProtect = 19;
inline constexpr uint32_t kErrorNotReady = 21;
inline constexpr uint32_t kErrorGeneralFailure = 31;
inline constexpr uint32_t kErrorSharingViolation = 32;
inline constexpr uint32_t kErrorLockViolation = 33;
inline constexpr uint32_t kErrorNotSupported = 50;
inline constexpr uint32_t kErrorBadNetPath = 53;
inline constexpr uint32_t kErrorFileExists = 80;
inline constexpr uint32_t kErrorInvalidParameter = 87;
inline constexpr uint32_t kErrorBrokenPipe = 109;
inline constexpr uint32_t kErrorDiskFull = 112;
inline constexpr uint32_t kErrorInsufficientBuffer = 122;
inline constexpr uint32_t kErrorInvalidName = 123;
inline constexpr uint32_t kErrorDirNotEmpty = 145;
inline constexpr uint32_t kErrorBadPathname = 161;
inline constexpr uint32_t kErrorBusy = 170;
inline constexpr uint32_t kErrorAlreadyExists = 183;
inline constexpr uint32_t kErrorFilenameTooLong = 206;
inline constexpr uint32_t kErrorMoreData = 234;
inline constexpr uint32_t kErrorNoMoreItems = 259;
inline constexpr uint32_t kErrorDirectory = 267;
inline constexpr uint32_t kErrorKeyDeleted = 1018;
inline constexpr uint32_t kErrorIoDevice = 1117;
inline constexpr uint32_t kErrorTimeout = 1460;
inline constexpr uint32_t kErrorCantResolveFilename = 1921;

// The last error of the calling thread, to be asked right after the call that failed. Also after a failed
// call of the C library.
uint32_t LastSystemError();
// One sentence, no line end. "Unknown error 4711" for a number without a text.
std::string SystemErrorText(uint32_t code);

// The Windows errors that stand for errno values, wherever the C library has them.
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

// The number that Windows has for an errno; kErrorGeneralFailure when none fits.
inline uint32_t SystemErrorFromErrno(int errnoValue)
{
    for (const ErrnoError &row : kErrnoErrors) {
        if (row.errnoValue == errnoValue)
            return row.code;
    }
    return kErrorGeneralFailure;
}

} // namespace fodr::platform
