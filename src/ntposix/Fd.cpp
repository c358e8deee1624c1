#include "ntposix/Fd.h"

#include <cerrno>

namespace fodr::ntposix {

void Fd::Reset(int descriptor)
{
    const int old = std::exchange(fd, descriptor);
    if (old < 0 || old == descriptor)
        return;
    const int saved = errno;
    close(old);
    errno = saved;
}

} // namespace fodr::ntposix
