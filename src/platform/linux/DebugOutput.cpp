#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/DebugOutput.h"

#include "platform/linux/PipeSignal.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace fodr::platform {

void DebugOutput(const char *text)
{
    syslog(LOG_USER | LOG_DEBUG, "%s", text);
}

void WriteStandardError(const char *text, size_t length)
{
    const int savedError = errno;
    const PipeSignalBlock block;
    while (write(STDERR_FILENO, text, length) < 0 && errno == EINTR) {
    }
    errno = savedError;
}

void WriteStandardOutput(const char *text)
{
    const PipeSignalBlock block;
    fputs(text, stdout);
    fflush(stdout);
}

} // namespace fodr::platform
