#include "platform/ChildProcess.h"

#include "platform/linux/ChildSpawn.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <sys/wait.h>
#include <thread>

namespace fodr::platform {
namespace {

class PosixChild final : public ChildProcess {
public:
    PosixChild(pid_t started, bool ownGroup, std::unique_ptr<ByteStream> connected,
               std::unique_ptr<LineReader> errorReader)
        : pid(started), group(ownGroup), stream(std::move(connected)), errors(std::move(errorReader)),
          waiter([this] { WaitMain(); })
    {}

    ~PosixChild() override
    {
        Kill();
        waiter.join();
        errors.reset();
    }

    std::unique_ptr<ByteStream> TakeStream() override { return std::move(stream); }
    int Id() const override { return pid; }

    std::optional<Exit> Wait(int timeoutMS) override
    {
        std::unique_lock<std::mutex> held(lock);
        const auto done = [this] { return ended.has_value(); };
        if (timeoutMS < 0)
            changed.wait(held, done);
        else
            changed.wait_for(held, std::chrono::milliseconds(timeoutMS), done);
        return ended;
    }

    void Terminate() override { Signal(SIGTERM); }
    void Kill() override { Signal(SIGKILL); }

private:
    // The id isn't given to another process before waitpid has taken it, which happens under the lock.
    void Signal(int number)
    {
        const std::lock_guard<std::mutex> held(lock);
        if (!ended)
            kill(group ? -pid : pid, number);
    }

    void WaitMain()
    {
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
        const std::lock_guard<std::mutex> held(lock);
        int status = 0;
        waitpid(pid, &status, 0);
        ended = WIFSIGNALED(status) ? Exit{true, WTERMSIG(status)} : Exit{false, WEXITSTATUS(status)};
        changed.notify_all();
    }

    const pid_t pid;
    const bool group;
    std::unique_ptr<ByteStream> stream;
    std::unique_ptr<LineReader> errors;
    std::mutex lock;
    std::condition_variable changed;
    std::optional<Exit> ended; // under lock
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
    auto stream = options.withStream ? MakeSocketStream(std::move(ends.ourStream)) : nullptr;
    ends.errorWrite.Reset(-1); // else the reader would wait for us
    return std::make_unique<PosixChild>(pid, options.interrupts == ChildOptions::Interrupts::Own,
                                        std::move(stream),
                                        LineReader::Of(std::move(ends.errorRead), options.onErrorLine));
}

} // namespace fodr::platform
