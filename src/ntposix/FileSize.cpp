#include "ntposix/FileSize.h"

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

} // namespace fodr::ntposix
