// The launcher is a fork that has no other threads. A request is one packet with the number of a planned
// program, an environment, and descriptors: of the one child's own socket, and of its standard streams. Over
// that socket go how the start went and how the child ended, and the other way the wish to end it.
#include "lib/misc/Mutex.h"
#include "platform/Confinement.h"
#include "platform/linux/ChildSpawn.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace fodr::platform {
namespace {

constexpr size_t kLongestRequest = 64 * 1024;
constexpr size_t kMostDescriptors = 3;

struct RequestHead {
    uint32_t program;
    uint32_t hasStream;
    uint32_t hasErrors;
};
struct StartReport {
    int32_t error; // an errno, or 0
    int32_t id;
};
struct EndReport {
    int32_t bySignal;
    int32_t code;
};

// A descriptor that is readable once the process has ended.
int OpenProcess(pid_t pid)
{
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

// ---- One packet with descriptors ----

// Room for the descriptors of a packet.
struct Passing {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))> room{};
    iovec bytes{};
    msghdr message{};

    Passing(void *data, size_t size) : bytes{data, size}
    {
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        message.msg_control = room.data();
        message.msg_controllen = room.size();
    }
};

bool SendPacket(int socket, std::string packet, const std::vector<int> &descriptors)
{
    Passing passing(packet.data(), packet.size());
    passing.message.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
    cmsghdr *head = CMSG_FIRSTHDR(&passing.message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
    memcpy(CMSG_DATA(head), descriptors.data(), descriptors.size() * sizeof(int));
    return sendmsg(socket, &passing.message, MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

// False at the end. Waits for nothing.
bool ReceivePacket(int socket, std::string *packet, std::vector<Fd> *descriptors)
{
    packet->resize(kLongestRequest);
    Passing passing(packet->data(), packet->size());
    const ssize_t got = recvmsg(socket, &passing.message, MSG_CMSG_CLOEXEC);
    for (cmsghdr *head = got < 0 ? nullptr : CMSG_FIRSTHDR(&passing.message); head != nullptr;
         head = CMSG_NXTHDR(&passing.message, head)) {
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS)
            continue;
        for (size_t at = 0; at + sizeof(int) <= head->cmsg_len - CMSG_LEN(0); at += sizeof(int)) {
            int descriptor;
            memcpy(&descriptor, CMSG_DATA(head) + at, sizeof(descriptor));
            descriptors->emplace_back(descriptor);
        }
    }
    packet->resize(got > 0 ? static_cast<size_t>(got) : 0);
    return got > 0;
}

// ---- In the launcher ----

class Server {
public:
    Server(Fd requests, const std::vector<ChildOptions> &planned) : socket(std::move(requests)), plan(planned)
    {}

    void Run()
    {
        for (;;) {
            std::vector<pollfd> waited{{socket.Get(), POLLIN, 0}};
            for (const Child &child : children) {
                waited.push_back({child.process.Get(), POLLIN, 0});
                waited.push_back({child.wishes.Get(), POLLIN, 0});
            }
            if (poll(waited.data(), waited.size(), -1) < 0)
                continue;
            for (size_t i = children.size(); i-- > 0;) {
                if (waited[2 * i + 2].revents != 0)
                    TakeWish(children[i]);
                if (waited[2 * i + 1].revents != 0) {
                    Report(children[i]);
                    children.erase(children.begin() + static_cast<ptrdiff_t>(i));
                }
            }
            std::string packet;
            std::vector<Fd> descriptors;
            if (waited[0].revents == 0)
                continue;
            if (!ReceivePacket(socket.Get(), &packet, &descriptors))
                return;
            Take(packet, std::move(descriptors));
        }
    }

private:
    struct Child {
        pid_t pid;
        bool group;
        Fd process; // readable at its end
        Fd wishes;
    };

    void Take(const std::string &packet, std::vector<Fd> descriptors)
    {
        RequestHead head{};
        if (packet.size() < sizeof(head))
            return;
        memcpy(&head, packet.data(), sizeof(head));
        const size_t wanted = 1 + (head.hasStream != 0) + (head.hasErrors != 0);
        if (head.program >= plan.size() || descriptors.size() != wanted)
            return; // whoever asks sees its socket closed
        ChildOptions options = plan[head.program];
        TakeEnvironment(std::string_view(packet).substr(sizeof(head)), &options.environment);
        Fd stream, errors;
        if (head.hasErrors != 0)
            errors = std::move(descriptors.back());
        if (head.hasStream != 0)
            stream = std::move(descriptors[1]);
        pid_t pid = 0;
        int error = SpawnChild(options, stream, errors, &pid);
        Fd process(error == 0 ? OpenProcess(pid) : -1);
        if (error == 0 && !process) { // short of descriptors: its end would go unnoticed
            error = errno;
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        const StartReport report{error, pid};
        send(descriptors[0].Get(), &report, sizeof(report), MSG_NOSIGNAL);
        if (error == 0)
            children.push_back({pid, options.interrupts == ChildOptions::Interrupts::Own, std::move(process),
                                std::move(descriptors[0])});
    }

    // The values of what is planned to be set: each a name and a value, both ended by a zero.
    static void TakeEnvironment(std::string_view text,
                                std::vector<std::pair<std::string, std::string>> *environment)
    {
        std::vector<std::string> words;
        for (size_t end; (end = text.find('\0')) != std::string_view::npos; text.remove_prefix(end + 1))
            words.emplace_back(text.substr(0, end));
        for (auto &[name, value] : *environment) {
            for (size_t i = 0; i + 1 < words.size(); i += 2) {
                if (words[i] == name)
                    value = words[i + 1];
            }
        }
    }

    void TakeWish(Child &child)
    {
        char wish = 0;
        if (recv(child.wishes.Get(), &wish, 1, 0) <= 0) {
            child.wishes.Reset(-1); // poll leaves it out; nobody waits for its end any more
            return;
        }
        kill(child.group ? -child.pid : child.pid, wish == 'K' ? SIGKILL : SIGTERM);
    }

    static void Report(const Child &child)
    {
        int status = 0;
        waitpid(child.pid, &status, 0);
        const bool bySignal = WIFSIGNALED(status);
        const EndReport report{bySignal, bySignal ? WTERMSIG(status) : WEXITSTATUS(status)};
        send(child.wishes.Get(), &report, sizeof(report), MSG_NOSIGNAL);
    }

    const Fd socket;
    const std::vector<ChildOptions> &plan;
    std::vector<Child> children;
};

// The terminal's signals are for those whom the launcher serves.
void IgnoreSignals()
{
    for (const int number : {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGPIPE})
        std::signal(number, SIG_IGN);
}

// ---- In the process that asks ----

// False when the launcher is gone.
template <typename Report> bool ReceiveReport(const Fd &socket, Report *report)
{
    ssize_t got;
    do
        got = recv(socket.Get(), report, sizeof(*report), 0);
    while (got < 0 && errno == EINTR);
    return got == sizeof(*report);
}

class LaunchedChild final : public StartedChild {
public:
    LaunchedChild(int childId, ChildEnds ends, const ChildOptions &options, Fd toLauncher)
        : StartedChild(childId, std::move(ends), options), socket(std::move(toLauncher)),
          waiter([this] { WaitMain(); })
    {}
    ~LaunchedChild() override
    {
        Kill();
        waiter.join();
    }

    void Terminate() override { Ask('T'); }
    void Kill() override { Ask('K'); }

private:
    void Ask(char wish) { send(socket.Get(), &wish, 1, MSG_NOSIGNAL); }

    void WaitMain()
    {
        EndReport report{1, SIGKILL}; // if the launcher was killed, the child's end is unknown
        ReceiveReport(socket, &report);
        const MutexLock held(lock);
        End({report.bySignal != 0, report.code});
    }

    const Fd socket;
    std::thread waiter;
};

class ForkedLauncher final : public ChildLauncher {
public:
    ForkedLauncher(Fd toLauncher, pid_t launcher, std::vector<ChildOptions> planned)
        : socket(std::move(toLauncher)), pid(launcher), plan(std::move(planned))
    {}
    ~ForkedLauncher() override
    {
        socket.Reset(-1);
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }

    std::unique_ptr<ChildProcess> Start(const ChildOptions &options, std::string *error) override
    {
        const auto found = std::find_if(plan.begin(), plan.end(), [&](const ChildOptions &one) {
            return one.arguments == options.arguments && one.interrupts == options.interrupts;
        });
        errno = EPERM;
        ChildEnds ends;
        Fd ours, theirs;
        int pair[2];
        if (found == plan.end() || !ends.Make(options) ||
            socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
            return FailWithErrno(error);
        ours.Reset(pair[0]);
        theirs.Reset(pair[1]);
        std::vector<int> descriptors{theirs.Get()};
        for (const Fd *end : {&ends.theirStream, &ends.errorWrite}) {
            if (*end)
                descriptors.push_back(end->Get());
        }
        const RequestHead head{static_cast<uint32_t>(found - plan.begin()), options.withStream,
                               static_cast<bool>(ends.errorWrite)};
        std::string packet(reinterpret_cast<const char *>(&head), sizeof(head));
        for (const auto &[name, value] : options.environment)
            packet += name + '\0' + value + '\0';
        const bool sent = SendPacket(socket.Get(), packet, descriptors);
        theirs.Reset(-1); // else the end of the launcher would go unnoticed
        StartReport report{};
        if (!sent || !ReceiveReport(ours, &report))
            report.error = EPIPE;
        if (report.error != 0) {
            errno = report.error;
            return FailWithErrno(error);
        }
        return std::make_unique<LaunchedChild>(report.id, std::move(ends), options, std::move(ours));
    }

private:
    Fd socket;
    const pid_t pid;
    const std::vector<ChildOptions> plan;
};

} // namespace

std::unique_ptr<ChildLauncher> ChildLauncher::Create(const std::vector<ChildOptions> &planned,
                                                     std::string *error)
{
    int pair[2];
    const Fd self(OpenProcess(getpid())); // without such descriptors no end would be noticed
    if (!self || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return FailWithErrno(error);
    Fd ours(pair[0]), theirs(pair[1]);
    const pid_t pid = fork();
    if (pid < 0)
        return FailWithErrno(error);
    if (pid == 0) {
        ours.Reset(-1);
        IgnoreSignals();
        prctl(PR_SET_NAME, "fodr-launcher");
        Server(std::move(theirs), planned).Run();
        _exit(0);
    }
    return std::make_unique<ForkedLauncher>(std::move(ours), pid, planned);
}

} // namespace fodr::platform
