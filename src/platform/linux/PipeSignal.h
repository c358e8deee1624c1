// Keeps a write to a pipe without a reader from ending the process. For libraries, which leave the signal's
// handler to the process that they are in.
#pragma once

#include <signal.h>
#include <time.h>

#include <cerrno>

namespace fodr::platform {

// While it lives SIGPIPE of this thread's writes is taken out of the way; errno stays as it is at the end.
// One that was pending before stays.
class PipeSignalBlock {
public:
    PipeSignalBlock()
    {
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        sigset_t pending;
        wasPending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
        isBlocked = pthread_sigmask(SIG_BLOCK, &pipe, &before) == 0;
    }
    ~PipeSignalBlock()
    {
        const int savedError = errno;
        const timespec now{};
        while (isBlocked && !wasPending && sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR) {
        }
        if (isBlocked)
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
        errno = savedError;
    }
    PipeSignalBlock(const PipeSignalBlock &) = delete;
    PipeSignalBlock &operator=(const PipeSignalBlock &) = delete;

private:
    sigset_t pipe;
    sigset_t before;
    bool wasPending;
    bool isBlocked;
};

} // namespace fodr::platform
