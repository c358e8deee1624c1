#include "platform/ChildProcess.h"

#include "platform/linux/ChildSpawn.h"

#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <thread>

namespace fodr::platform {
namespace {

class PosixChild final : public StartedChild {
public:
    PosixChild(pid_t started, ChildEnds ends, const ChildOptions &options)
        : StartedChild(started, std::move(ends), options),
          group(options.interrupts == ChildOptions::Interrupts::Own), waiter([this] { WaitMain(); })
    {}
    ~PosixChild() override
    {
        Kill();
        waiter.join();
    }

    void Terminate() override { Signal(SIGTERM); }
    void Kill() override { Signal(SIGKILL); }

private:
    // The id isn't given to another process before waitpid has taken it, which happens under the lock.
    void Signal(int number)
    {
        const std::lock_guard<std::mutex> held(lock);
        if (!ended)
            kill(group ? -id : id, number);
    }

    void WaitMain()
    {
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(id), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
        const std::lock_guard<std::mutex> held(lock);
        int status = 0;
        waitpid(id, &status, 0);
        End(WIFSIGNALED(status) ? Exit{true, WTERMSIG(status)} : Exit{false, WEXITSTATUS(status)});
    }

    const bool group;
    std::thread waiter;
};

} // namespace

std::unique_ptr<ChildProcess> ChildProcess::Start(const ChildOptions &options, std::string *error)
{
    ChildEnds ends;
    if (!ends.Make(options))
        return FailWithErrno(error);
    pid_t pid = 0;
    if (const int result = SpawnChild(options, ends.theirStream, ends.errorWrite, &pid); result != 0) {
        errno = result;
        return FailWithErrno(error);
    }
    return std::make_unique<PosixChild>(pid, std::move(ends), options);
}

} // namespace fodr::platform
