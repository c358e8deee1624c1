#include "platform/Process.h"

#include "lib/unicode/CodeSet.h"
#include "platform/Files.h"
#include "platform/SystemError.h"
#include "platform/Threads.h"
#include "platform/linux/OsFacts.h"

#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace fodr::platform {
namespace {

TEST(Process, NamesAreThoseOfTheSystem)
{
    char host[256] = {};
    ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
    std::string name;
    ASSERT_TRUE(Utf16ToUtf8(ComputerName(), name));
    EXPECT_EQ(name, host);
    if (geteuid() == 0) {
        EXPECT_EQ(UserName(), "root");
    }
    EXPECT_EQ(CurrentProcessId(), static_cast<uint32_t>(getpid()));
    uint32_t session = kNoSession;
    EXPECT_TRUE(CurrentSessionId(session));
    EXPECT_NE(session, kNoSession);
}

TEST(Process, AModuleIsFoundByAnAddressInIt)
{
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    static const int ours = 0;
    int onTheStack = 0;
    EXPECT_EQ(ModulePath(nullptr), program);
    EXPECT_EQ(ModulePath(&ours), program);
    EXPECT_EQ(ModulePath(&onTheStack), "");
    // Under a sanitizer getpid may be the program's own; this one nobody intercepts.
    const std::string library = ModulePath(dlsym(RTLD_NEXT, "gnu_get_libc_version"));
    EXPECT_EQ(std::filesystem::path(library).filename().string().substr(0, 4), "libc");
    EXPECT_TRUE(std::filesystem::path(library).is_absolute());
}

TEST(SystemError, HasWindowsNumbersAndTexts)
{
    const struct {
        int errnoValue;
        uint32_t code;
    } rows[] = {
        {0, 0},        {ENOENT, 2},      {ENOTDIR, 3},
        {EACCES, 5},   {EPERM, 5},       {EEXIST, 80},
        {ENOSPC, 112}, {ENOTEMPTY, 145}, {99999, kErrorGeneralFailure},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(SystemErrorFromErrno(row.errnoValue), row.code) << row.errnoValue;
        EXPECT_FALSE(SystemErrorText(row.code).empty());
    }
    std::ifstream missing("/nowhere/at all");
    EXPECT_EQ(LastSystemError(), kErrorFileNotFound);
    EXPECT_EQ(SystemErrorText(kErrorFileNotFound), "No such file or directory");
    EXPECT_EQ(SystemErrorText(kErrorMoreData), "More data available");
    EXPECT_EQ(SystemErrorText(4711), "Unknown error 4711");
}

TEST(OsFacts, TheDistributionsNameIsReadWithoutItsQuotes)
{
    const std::string text = "# a comment\nNAME=\"Plain\"\nXPRETTY_NAME=x\nPRETTY_NAME=\"A \\\"B\\\" \\$1\"\n"
                             "EMPTY=\nID='debian'\nLAST=end\\";
    for (const auto &[key, value] : {std::pair{"PRETTY_NAME", "A \"B\" $1"},
                                     {"NAME", "Plain"},
                                     {"ID", "debian"},
                                     {"EMPTY", ""},
                                     {"LAST", "end\\"},
                                     {"NONE", ""}}) {
        std::istringstream file(text);
        EXPECT_EQ(OsReleaseValue(file, key), value);
    }
    EXPECT_NE(OsVersionValue("ProductName"), "");
    EXPECT_EQ(OsVersionValue("CSDVersion"), "");
}

TEST(OsFacts, AServiceIsToldByItsAccountOrItsUnitAndNeverByBeingRoot)
{
    const char inUnit[] = "0::/system.slice/orvane.service\n";
    const struct {
        AccountFacts facts;
        bool service;
    } rows[] = {
        {{0, "/bin/bash", false, false, "0::/\n"}, false}, // as in a container
        {{0, "/usr/sbin/nologin", false, false, ""}, false},
        {{0, "/bin/bash", false, false, inUnit}, true},
        {{0, "/bin/bash", true, false, inUnit}, false}, // a job of somebody's, run by a service
        {{1000, "/bin/bash", false, false, "5:cpu:/\n1:name=systemd:/system.slice/a.slice/b.service\n"},
         true},
        {{1000, "/bin/bash", false, false, "2:cpu:/system.slice/b.service\n1:name=systemd:/\n"}, false},
        {{1000, "/bin/bash", false, false, "0::/system.slice/docker-1.scope\n"}, false},
        {{1000, "/bin/bash", false, true, "0::/\n"}, true}, // a unit with control groups of its own
        {{1000, "/bin/bash", true, true, "0::/\n"}, false},
        {{1000, "/bin/bash", false, true,
          "0::/user.slice/user-1000.slice/user@1000.service/app.slice/a.service"},
         false},
        {{998, "/usr/sbin/nologin", false, false, "0::/user.slice/x\n"}, true},
        {{998, "/bin/false", true, false, ""}, true},
        {{998, "/bin/sh", false, false, ""}, false},
        {{1001, "/usr/sbin/nologin", false, false, ""}, false},
        {{65534, "/usr/sbin/nologin", false, false, "::\n0::\n:name=systemd:"}, false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(IsServiceAccount(row.facts), row.service)
            << row.facts.userId << row.facts.shell << row.facts.controlGroups;
}

TEST(OsFacts, FoldersEndInASeparatorAndTheUserHasAName)
{
    const std::string previous = GetEnvironment("TMPDIR");
    for (const auto &[chosen, folder] :
         {std::pair{"", "/tmp/"}, {"relative", "/tmp/"}, {"/var/tmp", "/var/tmp/"}, {"/x/", "/x/"}}) {
        SetEnvironment("TMPDIR", chosen);
        EXPECT_EQ(TemporaryFolder(), folder);
    }
    if (previous.empty())
        unsetenv("TMPDIR");
    else
        SetEnvironment("TMPDIR", previous);
    EXPECT_EQ(ServiceLogFolder(), "/var/log/orvane/");
    SetEnvironment("USERNAME", "somebody");
    EXPECT_EQ(EnvironmentUserName(), "somebody");
    unsetenv("USERNAME");
    EXPECT_EQ(EnvironmentUserName(), UserName());
}

// Standard streams whose reader has gone, in a process that leaves SIGPIPE as it is.

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

TEST(ClosedHandle, IsNotTakenForItsSuccessor)
{
    const Waitable old = CreateEventObject(true, true, nullptr);
    EXPECT_TRUE(CloseWaitable(old));
    const Waitable successor = CreateEventObject(true, true, nullptr);
    EXPECT_NE(old, successor);
    EXPECT_EQ(WaitForWaitables(&old, 1, 0).status, WaitStatus::Failed);
    EXPECT_FALSE(SetEventObject(old) || ResetEventObject(old) || CloseWaitable(old) ||
                 DuplicateWaitable(old));
    EXPECT_TRUE(CloseWaitable(successor));
}

} // namespace
} // namespace fodr::platform
