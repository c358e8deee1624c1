// A process that has given up its rights, and the launcher that it keeps. Each test runs in a fork, since
// what is given up doesn't come back.
#include "platform/Confinement.h"

#include "WholeFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>

namespace fodr::platform {
namespace {

namespace fs = std::filesystem;

// ThreadSanitizer starts one in a process that forks: its rights can't be given up then.
#ifdef __SANITIZE_THREAD__
constexpr bool kSanitizerHasAThread = true;
#else
constexpr bool kSanitizerHasAThread = false;
#endif

class Confining : public testing::Test {
protected:
    Confining()
    {
        root = fs::temp_directory_path() / ("fodr-confined-" + std::to_string(std::random_device()()));
        for (const char *folder : {"in/a", "in/b", "out/empty", "tidy/empty"})
            fs::create_directories(root / folder);
        for (const char *file : {"in/f", "out/f", "tidy/f", "single"})
            std::ofstream(root / file) << "old";
    }
    ~Confining() override { fs::remove_all(root); }

    std::string At(const char *name) const { return (root / name).string(); }

    // The number of what failed first in a fork of this process: 0 if nothing did.
    static int InFork(const std::function<int()> &test)
    {
        const pid_t pid = fork();
        if (pid == 0)
            _exit(test());
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }
    // Whether the kernel can.
    bool CanConfineFiles() const
    {
        return InFork([] { return ConfineProcess({}).files ? 1 : 0; }) == 1;
    }
    bool Writes(const char *name) const
    {
        const int fd = open(At(name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const bool written = fd >= 0 && write(fd, "new", 3) == 3;
        close(fd);
        return written;
    }

    fs::path root;
};

TEST_F(Confining, FilesAreWrittenWhereThatWasAllowedAndReadEverywhere)
{
    if (!CanConfineFiles())
        GTEST_SKIP() << "no Landlock here";
    const ConfinementRules rules{{At("in"), At("single"), At("missing"), "/dev/null"}, {At("tidy")}};
    EXPECT_EQ(
        InFork([&] {
            const Confinement made = ConfineProcess(rules);
            const std::pair<const char *, std::function<bool()>> allowed[] = {
                {"privileges",
                 [&] { return made.privileges && prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1; }},
                {"files", [&] { return made.files && made.problem.empty(); }},
                {"change", [&] { return Writes("in/f") && Writes("in/new") && Writes("single"); }},
                {"cut", [&] { return truncate(At("in/f").c_str(), 1) == 0; }},
                {"folder", [&] { return mkdir(At("in/d").c_str(), 0700) == 0; }},
                {"move", [&] { return rename(At("in/new").c_str(), At("in/b/new").c_str()) == 0; }},
                {"remove", [&] { return unlink(At("in/b/new").c_str()) == 0; }},
                {"remove folder", [&] { return rmdir(At("in/d").c_str()) == 0; }},
                {"tidy", [&] { return rmdir(At("tidy/empty").c_str()) == 0; }},
                {"read", [&] { return test::ReadWholeFile(At("out/f")) == "old"; }},
                {"null", [&] { return open("/dev/null", O_RDWR | O_CLOEXEC) >= 0; }},
            };
            const std::pair<const char *, std::function<bool()>> refused[] = {
                {"change", [&] { return Writes("out/f"); }},
                {"make", [&] { return Writes("out/new") || Writes("new") || Writes("tidy/new"); }},
                {"cut", [&] { return truncate(At("out/f").c_str(), 1) == 0; }},
                {"folder", [&] { return mkdir(At("out/d").c_str(), 0700) == 0; }},
                {"move out", [&] { return rename(At("in/f").c_str(), At("out/g").c_str()) == 0; }},
                {"move in", [&] { return rename(At("out/f").c_str(), At("in/g").c_str()) == 0; }},
                {"link", [&] { return link(At("in/f").c_str(), At("out/g").c_str()) == 0; }},
                {"link out", [&] { return symlink("/", At("out/link").c_str()) == 0; }},
                {"device", [&] { return mknod(At("in/null").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0; }},
                {"remove",
                 [&] { return unlink(At("out/f").c_str()) == 0 || unlink(At("tidy/f").c_str()) == 0; }},
                {"remove folder", [&] { return rmdir(At("out/empty").c_str()) == 0; }},
                {"run",
                 [&] { return access("/bin/true", X_OK) != 0 || execl("/bin/true", "true", nullptr) == 0; }},
                {"signal", [&] { return kill(getppid(), 0) == 0; }},
            };
            int number = 0;
            for (const auto &[what, call] : allowed) {
                ++number;
                if (!call()) {
                    fprintf(stderr, "not allowed: %s\n", what);
                    return number;
                }
            }
            for (const auto &[what, call] : refused) {
                ++number;
                if (call()) {
                    fprintf(stderr, "not refused: %s\n", what);
                    return number;
                }
            }
            return 0;
        }),
        0);
    EXPECT_EQ(test::ReadWholeFile(At("out/f")), "old");
}

TEST_F(Confining, ComesBeforeOtherThreads)
{
    EXPECT_EQ(InFork([] {
                  std::thread other([] { pause(); });
                  const Confinement made = ConfineProcess({});
                  other.detach();
                  return made.privileges || made.files || made.problem != "other threads run already" ? 1 : 0;
              }),
              0);
}

TEST_F(Confining, TheLauncherStartsWhatIsPlannedAndNothingElse)
{
    const auto shell = [](std::string text) {
        ChildOptions child;
        child.arguments = {"/bin/sh", "-c", std::move(text)};
        return child;
    };
    ChildOptions talker = shell("read line; echo \"$line $FODR_MOUNT $OTHER\"; echo warned >&2; exit 3");
    talker.environment = {{"FODR_MOUNT", ""}};
    ChildOptions writer = shell("echo new > \"" + At("out/by-child") + "\"");
    ChildOptions sleeper = shell("trap 'exit 5' TERM; echo up >&2; sleep 60 & wait");
    ChildOptions absent;
    absent.arguments = {"/nowhere/program"};
    EXPECT_EQ(InFork([&] {
                  std::string error;
                  const auto launcher = ChildLauncher::Create({talker, writer, sleeper, absent}, &error);
                  if (!launcher || (!kSanitizerHasAThread && !ConfineProcess({}).privileges))
                      return 1;
                  std::string lines;
                  talker.withStream = true;
                  talker.onErrorLine = [&lines](const std::string &line) { lines += line; };
                  talker.environment = {{"FODR_MOUNT", "/mnt"}, {"OTHER", "hidden"}};
                  auto child = launcher->Start(talker, &error);
                  if (!child)
                      return 2;
                  const auto stream = child->TakeStream();
                  std::array<char, 64> answer{};
                  const ByteView question[] = {std::as_bytes(std::span("hello\n", 6))};
                  if (!stream->Write(question) ||
                      stream->Read(std::as_writable_bytes(std::span(answer))) <= 0 ||
                      std::string(answer.data()) != "hello /mnt \n")
                      return 3;
                  const auto exit = child->Wait(-1);
                  child.reset();
                  if (!exit || exit->bySignal || exit->code != 3 || lines != "warned")
                      return 4;
                  // As often as asked for, and with the rights that we have given up.
                  for (int i = 0; i < 2; ++i) {
                      child = launcher->Start(writer, &error);
                      if (!child || child->Wait(-1)->code != 0)
                          return 5;
                  }
                  std::atomic<bool> up{false};
                  sleeper.onErrorLine = [&up](const std::string &line) { up = line == "up"; };
                  child = launcher->Start(sleeper, &error);
                  for (int i = 0; child && !up && i < 6000; ++i)
                      usleep(10000);
                  child->Terminate();
                  if (child->Wait(-1)->code != 5)
                      return 6;
                  child = launcher->Start(absent, &error);
                  if (child || error != "No such file or directory")
                      return 7;
                  ChildOptions other = writer;
                  other.arguments.back() += " ";
                  if (launcher->Start(other, &error))
                      return 8;
                  child = launcher->Start(sleeper, &error);
                  child.reset(); // killed
                  return 0;
              }),
              0);
    EXPECT_EQ(test::ReadWholeFile(At("out/by-child")), "new\n");
}

} // namespace
} // namespace fodr::platform
