// Threads and signals of a library in somebody else's process.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <cerrno>

namespace fodr::platform {

// With a small stack, for pools that may have a thousand of them. A thread on which no signal of the host's
// lands. The caller joins it. False when none can be had.
[[nodiscard]] bool StartSmallThread(pthread_t *thread, void *(*entry)(void *), void *argument);

// Keeps a write to a pipe without a reader from ending the process; the signal's handler is left to the
// process. While it lives SIGPIPE of this thread's writes is taken out of the way; errno stays as it is at
// the end. One that was pending before stays.
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
