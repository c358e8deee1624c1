#include "agent/fuse/HandOver.h"

#include "platform/Files.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace fodr::agent {
namespace {

namespace fs = std::filesystem;

constexpr size_t kStreams = 3; // in, out, standard error
constexpr size_t kMostSettings = 16384;
constexpr int kMostLinks = 40;
constexpr timeval kPatience = {2, 0}; // with an agent that connects and says nothing

// The mount point with links resolved. It isn't looked into itself: nobody may answer there.
std::string PlaceOf(const std::string &mountPoint)
{
    std::error_code error;
    fs::path path = fs::absolute(mountPoint, error).lexically_normal();
    if (!path.has_filename())
        path = path.parent_path();
    for (int links = 0; links < kMostLinks; ++links) {
        const fs::path folder = fs::weakly_canonical(path.parent_path(), error);
        if (!error)
            path = folder / path.filename();
        char target[PATH_MAX];
        const ssize_t length = readlink(path.c_str(), target, sizeof(target));
        if (length <= 0)
            break;
        path = (path.parent_path() / std::string(target, static_cast<size_t>(length))).lexically_normal();
    }
    return path.string();
}

// FNV-1a.
std::string HashOf(const std::string &text)
{
    uint64_t hash = 0xCBF29CE484222325;
    for (const char c : text)
        hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3;
    char digits[17];
    snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(hash));
    return digits;
}

std::string SocketFolder()
{
    return platform::RuntimeFolder() + "/.agents";
}

std::string SocketOf(const std::string &mountPoint)
{
    return SocketFolder() + "/" + HashOf(PlaceOf(mountPoint));
}

bool IsThisUsers(const Fd &socket)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

void SendText(const Fd &socket, const std::string &text)
{
    if (socket)
        send(socket.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

// A message with room for the streams, of bytes that are the caller's.
struct StreamsMessage {
    StreamsMessage(char *data, size_t size) : bytes{data, size}
    {
        header.msg_iov = &bytes;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
    }
    StreamsMessage(const StreamsMessage &) = delete;
    StreamsMessage &operator=(const StreamsMessage &) = delete;

    iovec bytes;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(kStreams * sizeof(int))> control{};
    msghdr header{};
};

bool SendStreams(const Fd &socket, const std::array<int, kStreams> &streams, std::string settings)
{
    StreamsMessage message(settings.data(), settings.size());
    cmsghdr *head = CMSG_FIRSTHDR(&message.header);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(streams));
    std::memcpy(CMSG_DATA(head), streams.data(), sizeof(streams));
    return sendmsg(socket.Get(), &message.header, MSG_NOSIGNAL) == static_cast<ssize_t>(settings.size());
}

// False when they aren't just those that were expected; all that came are closed then.
bool ReceiveStreams(const Fd &socket, std::array<Fd, kStreams> *streams, std::string *settings)
{
    settings->resize(kMostSettings);
    StreamsMessage message(settings->data(), settings->size());
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
    ssize_t got;
    do
        got = recvmsg(socket.Get(), &message.header, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
    if (got <= 0)
        return false;
    settings->resize(static_cast<size_t>(got));
    size_t count = 0;
    for (cmsghdr *head = CMSG_FIRSTHDR(&message.header); head; head = CMSG_NXTHDR(&message.header, head)) {
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS)
            continue;
        for (size_t at = 0; head->cmsg_len >= CMSG_LEN((at + 1) * sizeof(int)); ++at) {
            int descriptor;
            std::memcpy(&descriptor, CMSG_DATA(head) + at * sizeof(int), sizeof(descriptor));
            Fd received(descriptor);
            if (count < kStreams)
                (*streams)[count] = std::move(received);
            ++count;
        }
    }
    return count == kStreams && (message.header.msg_flags & (MSG_CTRUNC | MSG_TRUNC)) == 0;
}

} // namespace

// ---- The line between the two ----

void FrontLine::SayExit(int code)
{
    SendText(socket, "exit " + std::to_string(code) + "\n");
    socket.Reset(-1);
}

void FrontLine::SayLastExit(int code)
{
    SendText(socket, "exit " + std::to_string(code) + "\n");
    socket.Release(); // its end is the process's
}

void FrontLine::SayRefused(const std::string &sentence)
{
    SendText(socket, "refused " + sentence + "\n");
    socket.Reset(-1);
}

bool FrontLine::TakeEndWish()
{
    char text[16];
    const ssize_t got = recv(socket.Get(), text, sizeof(text), MSG_DONTWAIT);
    // One that was killed leaves the connection as it is.
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
        socket.Reset(-1);
    return got > 0;
}

int FrontLine::AwaitExit(Fd localSocket)
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    const Fd signals(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
    std::string text;
    for (;;) {
        pollfd waits[] = {{localSocket.Get(), POLLIN, 0}, {signals.Get(), POLLIN, 0}};
        if (poll(waits, 2, -1) < 0 && errno != EINTR)
            return AGENT_LOST;
        signalfd_siginfo information;
        if (waits[1].revents && read(signals.Get(), &information, sizeof(information)) > 0)
            SendText(localSocket, "end\n");
        if (!waits[0].revents)
            continue;
        char some[512];
        const ssize_t got = recv(localSocket.Get(), some, sizeof(some), 0);
        if (got > 0)
            text.append(some, static_cast<size_t>(got));
        else if (got == 0 || errno != EINTR)
            break;
    }
    if (text.starts_with("refused ") && text.ends_with('\n')) {
        fprintf(stderr, "fodr: %s", text.substr(strlen("refused ")).c_str());
        return AGENT_MOUNT_FAILED;
    }
    return text.starts_with("exit ") ? atoi(text.c_str() + strlen("exit ")) : AGENT_LOST;
}

// ---- Finding each other ----

std::string MountSettings(const AgentOptions &options)
{
    const ClientOptions &client = options.client;
    std::string text = PlaceOf(options.mountPoint);
    for (const unsigned number :
         {static_cast<unsigned>(options.layout), unsigned{options.readOnly}, unsigned{options.allowOther},
          unsigned{options.denyWriters}, unsigned{options.realOwners}, unsigned{options.events},
          unsigned{client.version}, unsigned{client.multiEntryDirectoryQuery}, unsigned{client.preRead},
          unsigned{client.driveLetterMapping}, unsigned{client.policy.enabled},
          unsigned{client.policy.sharedByAgent}, unsigned{client.policy.defaultPermission},
          static_cast<unsigned>(client.sideChannel), static_cast<unsigned>(client.links)})
        text += "\n" + std::to_string(number);
    for (const PolicyFolder &folder : client.policy.folders)
        text += "\n" + std::to_string(folder.permission) + ":" + folder.path;
    text += "\n" + client.policy.excludeRule + "\n" + client.policy.includeRule;
    // The tokens themselves stay where they are.
    return text + "\n" + HashOf(client.token) + "\n" + HashOf(client.expectedToken);
}

std::unique_ptr<HandOverSocket> HandOverSocket::Listen(const std::string &mountPoint, std::string *error)
{
    if (!platform::CreatePrivateFolder(platform::RuntimeFolder(), error) ||
        !platform::CreatePrivateFolder(SocketFolder(), error))
        return nullptr;
    const std::string path = SocketOf(mountPoint);
    Fd socket = platform::ListenLocalSocket(path, error);
    if (!socket)
        return nullptr;
    return std::unique_ptr<HandOverSocket>(new HandOverSocket(std::move(socket), path));
}

HandOverSocket::~HandOverSocket()
{
    unlink(path.c_str());
}

std::optional<Successor> HandOverSocket::Accept()
{
    Fd line(accept4(socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    std::array<Fd, kStreams> streams;
    Successor successor;
    if (!line || !IsThisUsers(line) || !ReceiveStreams(line, &streams, &successor.settings))
        return std::nullopt;
    successor.stream = platform::MakeFdStream(std::move(streams[0]), std::move(streams[1]));
    successor.errors = std::move(streams[2]);
    successor.front = FrontLine(std::move(line));
    return successor;
}

std::optional<int> HandOver(const AgentOptions &options,
                            const std::function<std::unique_ptr<platform::ByteStream>()> &open)
{
    Fd socket = platform::ConnectLocalSocket(SocketOf(options.mountPoint), nullptr);
    if (!socket || !IsThisUsers(socket))
        return std::nullopt;
    std::unique_ptr<platform::ByteStream> stream = open();
    if (!stream)
        return AGENT_LOST;
    std::array<int, kStreams> streams = {-1, -1, STDERR_FILENO};
    if (!platform::DescriptorsOf(*stream, &streams[0], &streams[1]) ||
        !SendStreams(socket, streams, MountSettings(options)))
        return AGENT_LOST;
    stream.reset();
    return FrontLine::AwaitExit(std::move(socket));
}

} // namespace fodr::agent
