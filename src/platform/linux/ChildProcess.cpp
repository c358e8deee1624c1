#include "platform/ChildProcess.h"

#include "platform/linux/FdStream.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

extern char **environ;

namespace fodr::platform {
namespace {

constexpr size_t kMaxLine = 4000;

// Our environment with the additions on top.
class Environment {
public:
    explicit Environment(const std::vector<std::pair<std::string, std::string>> &additions)
    {
        for (const auto &[name, value] : additions)
            own.push_back(name + "=" + value);
        for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
            const std::string_view text(*entry);
            const auto replaced = [&](const auto &addition) {
                return text.starts_with(addition.first + "=");
            };
            if (std::none_of(additions.begin(), additions.end(), replaced))
                pointers.push_back(*entry);
        }
        for (std::string &entry : own)
            pointers.push_back(entry.data());
        pointers.push_back(nullptr);
    }
    char **Get() { return pointers.data(); }

private:
    std::vector<std::string> own;
    std::vector<char *> pointers;
};

// Reads lines until everybody has closed the pipe, or until it is told to stop.
class LineReader {
public:
    LineReader(Fd readEnd, std::function<void(const std::string &)> handler)
        : pipeFd(std::move(readEnd)), stopFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          onLine(std::move(handler)), thread([this] { Main(); })
    {}
    ~LineReader()
    {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(stopFd.Get(), &one, sizeof(one));
        thread.join();
    }

private:
    void Main()
    {
        std::string line;
        char buffer[1024];
        fcntl(pipeFd.Get(), F_SETFL, O_NONBLOCK);
        for (;;) {
            const ssize_t got = read(pipeFd.Get(), buffer, sizeof(buffer));
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
                break;
            if (got < 0) {
                pollfd wanted[] = {{pipeFd.Get(), POLLIN, 0}, {stopFd.Get(), POLLIN, 0}};
                if (poll(wanted, 2, -1) > 0 && wanted[0].revents == 0)
                    break; // stopped, and nothing is left to read
                continue;
            }
            for (const char c : std::string_view(buffer, static_cast<size_t>(got)))
                Take(c, &line);
        }
        if (!line.empty())
            onLine(line);
    }

    void Take(char c, std::string *line)
    {
        if (c != '\n')
            line->push_back(c);
        if (c != '\n' && line->size() < kMaxLine)
            return;
        onLine(*line);
        line->clear();
    }

    const Fd pipeFd;
    const Fd stopFd;
    const std::function<void(const std::string &)> onLine;
    std::thread thread;
};

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

// What posix_spawn is told, freed with it.
struct SpawnSettings {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;

    explicit SpawnSettings(ChildOptions::Interrupts interrupts)
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        for (const int number : {SIGPIPE, SIGTERM, SIGHUP, SIGINT, SIGQUIT})
            sigaddset(&defaults, number);
        if (interrupts == ChildOptions::Interrupts::Ignored) {
            sigdelset(&defaults, SIGINT);
            sigdelset(&defaults, SIGQUIT);
        }
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setpgroup(&attributes, 0);
        const bool own = interrupts == ChildOptions::Interrupts::Own;
        posix_spawnattr_setflags(&attributes,
                                 static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                    (own ? POSIX_SPAWN_SETPGROUP : 0)));
    }
    ~SpawnSettings()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSettings(const SpawnSettings &) = delete;
    SpawnSettings &operator=(const SpawnSettings &) = delete;

    void Give(const Fd &fd, int as) { posix_spawn_file_actions_adddup2(&actions, fd.Get(), as); }
};

// An ignored signal is inherited through exec. Ours are blocked and taken by a waiting thread meanwhile, or
// ignored for the moment of the start.
class IgnoreInterrupts {
public:
    explicit IgnoreInterrupts(bool active)
    {
        if (!active)
            return;
        used = true;
        previousInterrupt = std::signal(SIGINT, SIG_IGN);
        previousQuit = std::signal(SIGQUIT, SIG_IGN);
    }
    ~IgnoreInterrupts()
    {
        if (!used)
            return;
        std::signal(SIGINT, previousInterrupt);
        std::signal(SIGQUIT, previousQuit);
    }
    IgnoreInterrupts(const IgnoreInterrupts &) = delete;
    IgnoreInterrupts &operator=(const IgnoreInterrupts &) = delete;

private:
    bool used = false;
    sighandler_t previousInterrupt = SIG_DFL;
    sighandler_t previousQuit = SIG_DFL;
};

bool MakePipe(Fd *readEnd, Fd *writeEnd, bool socket)
{
    int ends[2];
    const int result =
        socket ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) : pipe2(ends, O_CLOEXEC);
    if (result != 0)
        return false;
    readEnd->Reset(ends[0]);
    writeEnd->Reset(ends[1]);
    return true;
}

} // namespace

std::unique_ptr<ChildProcess> ChildProcess::Start(const ChildOptions &options, std::string *error)
{
    Fd ours, theirs, errorRead, errorWrite;
    if ((options.withStream && !MakePipe(&ours, &theirs, true)) ||
        (options.onErrorLine && !MakePipe(&errorRead, &errorWrite, false)))
        return FailWithErrno(error);
    SpawnSettings settings(options.interrupts);
    if (options.withStream) {
        settings.Give(theirs, STDIN_FILENO);
        settings.Give(theirs, STDOUT_FILENO);
    }
    if (options.onErrorLine)
        settings.Give(errorWrite, STDERR_FILENO);
    std::vector<std::string> words = options.arguments;
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    Environment environment(options.environment);
    pid_t pid = 0;
    int result;
    {
        const IgnoreInterrupts ignore(options.interrupts == ChildOptions::Interrupts::Ignored);
        result = posix_spawnp(&pid, arguments[0], &settings.actions, &settings.attributes, arguments.data(),
                              environment.Get());
    }
    if (result != 0) {
        errno = result;
        return FailWithErrno(error);
    }
    auto stream = options.withStream ? MakeSocketStream(std::move(ours)) : nullptr;
    auto lines = options.onErrorLine ? std::make_unique<LineReader>(std::move(errorRead), options.onErrorLine)
                                     : nullptr;
    return std::make_unique<PosixChild>(pid, options.interrupts == ChildOptions::Interrupts::Own,
                                        std::move(stream), std::move(lines));
}

} // namespace fodr::platform
