#include "ntposix/ProcessLock.h"

#include <fcntl.h>

#include <cerrno>

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

} // namespace fodr::ntposix
