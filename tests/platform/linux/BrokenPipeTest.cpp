// Standard streams whose reader has gone, in a process that leaves SIGPIPE as it is.
#include "platform/Process.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>

namespace fodr::platform {
namespace {

void LoseReader(int stream)
{
    signal(SIGPIPE, SIG_DFL);
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], stream) < 0)
        _exit(10);
    close(ends[0]);
    close(ends[1]);
}

bool IsPending()
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

TEST(BrokenPipeDeathTest, LinesForNobodyAreLostAndNothingElse)
{
    EXPECT_EXIT(
        {
            LoseReader(STDERR_FILENO);
            errno = 77;
            WriteStandardError("x", 1);
            _exit(errno == 77 && !IsPending() ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    EXPECT_EXIT(
        {
            LoseReader(STDOUT_FILENO);
            WriteStandardOutput("x\n");
            WriteStandardOutput("y\n");
            exit(IsPending() ? 4 : 3); // which has nothing left to write
        },
        testing::ExitedWithCode(3), "");
    // What the process does with the signal itself stays its own.
    EXPECT_EXIT(
        {
            LoseReader(STDERR_FILENO);
            WriteStandardError("x", 1);
            [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, "x", 1);
            _exit(4);
        },
        testing::KilledBySignal(SIGPIPE), "");
    EXPECT_EXIT(
        {
            LoseReader(STDERR_FILENO);
            sigset_t pipe;
            sigemptyset(&pipe);
            sigaddset(&pipe, SIGPIPE);
            sigprocmask(SIG_BLOCK, &pipe, nullptr);
            raise(SIGPIPE);
            WriteStandardError("x", 1);
            _exit(IsPending() ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
}

} // namespace
} // namespace fodr::platform
