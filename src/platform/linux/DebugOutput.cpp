#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/DebugOutput.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>

namespace fodr::platform {

void DebugOutput(const char *text)
{
    syslog(LOG_USER | LOG_DEBUG, "%s", text);
}

void WriteStandardError(const char *text, size_t length)
{
    const int savedError = errno;
    while (write(STDERR_FILENO, text, length) < 0 && errno == EINTR) {
    }
    errno = savedError;
}

} // namespace fodr::platform
