#include "platform/ChildProcess.h"

#include "lib/misc/Mutex.h"
#include "platform/linux/ChildSpawn.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

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

// The arguments of posix_spawn, freed with it.
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

bool MakePair(Fd *first, Fd *second, int (*make)(int *))
{
    int ends[2];
    if (make(ends) != 0)
        return false;
    first->Reset(ends[0]);
    second->Reset(ends[1]);
    return true;
}

} // namespace

bool ChildEnds::Make(const ChildOptions &options)
{
    const auto sockets = [](int *ends) { return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends); };
    const auto pipes = [](int *ends) { return pipe2(ends, O_CLOEXEC); };
    return (!options.withStream || MakePair(&ourStream, &theirStream, sockets)) &&
           (!options.onErrorLine || MakePair(&errorRead, &errorWrite, pipes));
}

int SpawnChild(const ChildOptions &options, const Fd &stream, const Fd &errors, pid_t *pid)
{
    SpawnSettings settings(options.interrupts);
    if (stream) {
        settings.Give(stream, STDIN_FILENO);
        settings.Give(stream, STDOUT_FILENO);
    }
    if (errors)
        settings.Give(errors, STDERR_FILENO);
    std::vector<std::string> words = options.arguments;
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    Environment environment(options.environment);
    const IgnoreInterrupts ignore(options.interrupts == ChildOptions::Interrupts::Ignored);
    return posix_spawnp(pid, arguments[0], &settings.actions, &settings.attributes, arguments.data(),
                        environment.Get());
}

LineReader::LineReader(Fd readEnd, std::function<void(const std::string &)> handler)
    : pipeFd(std::move(readEnd)), stopFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), onLine(std::move(handler)),
      thread([this] { Main(); })
{}

LineReader::~LineReader()
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stopFd.Get(), &one, sizeof(one));
    thread.join();
}

void LineReader::Main()
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

void LineReader::Take(char c, std::string *line)
{
    if (c != '\n')
        line->push_back(c);
    if (c != '\n' && line->size() < kMaxLine)
        return;
    onLine(*line);
    line->clear();
}

StartedChild::StartedChild(int childId, ChildEnds ends, const ChildOptions &options)
    : id(childId), stream(ends.ourStream ? MakeSocketStream(std::move(ends.ourStream)) : nullptr),
      errors(LineReader::Of(std::move(ends.errorRead), options.onErrorLine))
{}

std::optional<ChildProcess::Exit> StartedChild::Wait(int timeoutMS)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    const MutexLock held(lock);
    while (!ended) {
        if (timeoutMS < 0)
            changed.wait(lock);
        else if (changed.wait_until(lock, end) == std::cv_status::timeout)
            break;
    }
    return ended;
}

void StartedChild::End(Exit exit)
{
    ended = exit;
    changed.notify_all();
}

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
        const MutexLock held(lock);
        if (!ended)
            kill(group ? -id : id, number);
    }

    void WaitMain()
    {
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(id), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
        const MutexLock held(lock);
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
