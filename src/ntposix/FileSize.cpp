#include "ntposix/FileSize.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <sys/stat.h>

namespace fodr::ntposix {

int SetEndOfFile(int fd, int64_t size)
{
    int result;
    do {
        result = ftruncate(fd, size);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

int AllocateSpace(int fd, int64_t size)
{
    int result;
    do {
        result = fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, size);
    } while (result != 0 && errno == EINTR);
    return result == 0 || errno == EOPNOTSUPP || errno == ENOSYS ? 0 : errno;
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
