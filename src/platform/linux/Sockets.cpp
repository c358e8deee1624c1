// TCP and local sockets for ByteStream.h.

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/ByteStream.h"
#include "platform/linux/FdStream.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace fodr::platform {
namespace {

struct AddressList {
    addrinfo *first = nullptr;
    ~AddressList()
    {
        if (first != nullptr)
            freeaddrinfo(first);
    }
};

bool Resolve(const std::string &host, uint16_t port, int flags, AddressList *list, std::string *error)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    const std::string service = std::to_string(port);
    const int result =
        getaddrinfo(host.empty() ? nullptr : host.c_str(), service.c_str(), &hints, &list->first);
    if (result != 0 && error != nullptr)
        *error = gai_strerror(result);
    return result == 0;
}

// Connects a non-blocking socket and makes it blocking. errno on failure.
bool ConnectWithin(int fd, const addrinfo &address, int timeoutMS)
{
    if (connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
        if (errno != EINPROGRESS)
            return false;
        pollfd wanted{fd, POLLOUT, 0};
        const int ready = poll(&wanted, 1, timeoutMS);
        if (ready <= 0) {
            errno = ready == 0 ? ETIMEDOUT : errno;
            return false;
        }
        int failure = 0;
        socklen_t size = sizeof(failure);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size);
        if (failure != 0) {
            errno = failure;
            return false;
        }
    }
    return fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0;
}

Fd BindAndListen(const addrinfo &address)
{
    Fd fd(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    const int off = 0;
    if (!fd)
        return fd;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (address.ai_family == AF_INET6)
        setsockopt(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
    if (bind(fd.Get(), address.ai_addr, address.ai_addrlen) != 0 || listen(fd.Get(), SOMAXCONN) != 0)
        return Fd();
    return fd;
}

// A socket address holds only some 100 bytes; a longer path is reached through its folder's descriptor.
struct LocalAddress {
    sockaddr_un name{};
    Fd folder;

    bool Set(const std::string &path)
    {
        std::string fitting = path;
        if (path.size() >= sizeof(name.sun_path)) {
            const std::filesystem::path whole(path);
            folder = Fd(open(whole.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            fitting = "/proc/self/fd/" + std::to_string(folder.Get()) + "/" + whole.filename().string();
            if (!folder || fitting.size() >= sizeof(name.sun_path)) {
                errno = folder ? ENAMETOOLONG : errno;
                return false;
            }
        }
        name.sun_family = AF_UNIX;
        std::memcpy(name.sun_path, fitting.c_str(), fitting.size() + 1);
        return true;
    }
    const sockaddr *Get() const { return reinterpret_cast<const sockaddr *>(&name); }
};

// Removes the socket of a process that is gone. errno on failure.
bool RemoveLeftOver(const std::string &path)
{
    struct stat facts {};
    LocalAddress address;
    Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd || !address.Set(path) || lstat(path.c_str(), &facts) != 0)
        return false;
    if (!S_ISSOCK(facts.st_mode) || connect(fd.Get(), address.Get(), sizeof(address.name)) == 0) {
        errno = EADDRINUSE;
        return false;
    }
    return errno == ECONNREFUSED && unlink(path.c_str()) == 0;
}

constexpr int kTryAgainMS = 100;

class FdListener final : public StreamListener {
public:
    FdListener(Fd listening, Fd wake, std::string path)
        : fd(std::move(listening)), wakeFd(std::move(wake)), localPath(std::move(path))
    {
        struct stat facts {};
        if (!localPath.empty() && stat(localPath.c_str(), &facts) == 0) {
            device = facts.st_dev;
            inode = facts.st_ino;
        }
    }

    ~FdListener() override
    {
        // Only while it is still ours: a successor may have replaced it.
        struct stat facts {};
        if (!localPath.empty() && stat(localPath.c_str(), &facts) == 0 && facts.st_dev == device &&
            facts.st_ino == inode)
            unlink(localPath.c_str());
    }

    std::unique_ptr<ByteStream> Accept(int timeoutMS) override
    {
        for (;;) {
            pollfd wanted[] = {{fd.Get(), POLLIN, 0}, {wakeFd.Get(), POLLIN, 0}};
            const int ready = poll(wanted, 2, timeoutMS);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready <= 0 || wanted[1].revents != 0)
                return nullptr;
            Fd peer(accept4(fd.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (peer)
                return MakeSocketStream(std::move(peer));
            if (errno == EBADF || errno == EINVAL)
                return nullptr;
            // The peer waits until there is a descriptor for it.
            const bool full = errno == EMFILE || errno == ENFILE;
            if (full && (poll(&wanted[1], 1, kTryAgainMS) > 0 || timeoutMS >= 0))
                return nullptr;
        }
    }

    void Shutdown() override
    {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(wakeFd.Get(), &one, sizeof(one));
    }

    uint16_t Port() const override
    {
        sockaddr_storage name{};
        socklen_t size = sizeof(name);
        if (getsockname(fd.Get(), reinterpret_cast<sockaddr *>(&name), &size) != 0)
            return 0;
        if (name.ss_family == AF_INET)
            return ntohs(reinterpret_cast<const sockaddr_in *>(&name)->sin_port);
        if (name.ss_family == AF_INET6)
            return ntohs(reinterpret_cast<const sockaddr_in6 *>(&name)->sin6_port);
        return 0;
    }

private:
    const Fd fd;
    const Fd wakeFd;
    const std::string localPath;
    dev_t device = 0;
    ino_t inode = 0;
};

std::unique_ptr<StreamListener> MakeListener(Fd listening, const std::string &path, std::string *error)
{
    Fd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake)
        return FailWithErrno(error);
    return std::make_unique<FdListener>(std::move(listening), std::move(wake), path);
}

} // namespace

std::unique_ptr<ByteStream> ConnectTcp(const std::string &host, uint16_t port, int timeoutMS,
                                       std::string *error)
{
    AddressList list;
    if (!Resolve(host, port, 0, &list, error))
        return nullptr;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    for (const addrinfo *address = list.first; address != nullptr; address = address->ai_next) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        Fd fd(socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!fd)
            continue;
        const int wait = timeoutMS < 0 ? -1 : static_cast<int>(std::max<int64_t>(left.count(), 0));
        if (ConnectWithin(fd.Get(), *address, wait))
            return MakeSocketStream(std::move(fd));
    }
    return FailWithErrno(error);
}

std::unique_ptr<StreamListener> ListenTcp(const std::string &address, uint16_t port, std::string *error)
{
    AddressList list;
    if (!Resolve(address, port, AI_PASSIVE, &list, error))
        return nullptr;
    // On all addresses: an IPv6 socket serves both families, so it is tried first.
    for (const int family : {AF_INET6, AF_INET}) {
        for (const addrinfo *entry = list.first; entry != nullptr; entry = entry->ai_next) {
            if (entry->ai_family != family)
                continue;
            Fd fd = BindAndListen(*entry);
            if (fd)
                return MakeListener(std::move(fd), {}, error);
        }
    }
    return FailWithErrno(error);
}

Fd ConnectLocalSocket(const std::string &path, std::string *error)
{
    LocalAddress address;
    Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd || !address.Set(path) || connect(fd.Get(), address.Get(), sizeof(address.name)) != 0) {
        FailWithErrno(error);
        return Fd();
    }
    return fd;
}

std::unique_ptr<ByteStream> ConnectLocal(const std::string &path, std::string *error)
{
    Fd fd = ConnectLocalSocket(path, error);
    return fd ? MakeSocketStream(std::move(fd)) : nullptr;
}

Fd ListenLocalSocket(const std::string &path, std::string *error)
{
    LocalAddress address;
    Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int result = fd && address.Set(path) ? 0 : -1;
    if (result == 0)
        result = bind(fd.Get(), address.Get(), sizeof(address.name));
    if (result != 0 && errno == EADDRINUSE && RemoveLeftOver(path))
        result = bind(fd.Get(), address.Get(), sizeof(address.name));
    // Nobody can connect before listen.
    if (result == 0 && chmod(path.c_str(), S_IRUSR | S_IWUSR) == 0 && listen(fd.Get(), SOMAXCONN) == 0)
        return fd;
    FailWithErrno(error);
    return Fd();
}

std::unique_ptr<StreamListener> ListenLocal(const std::string &path, std::string *error)
{
    Fd fd = ListenLocalSocket(path, error);
    return fd ? MakeListener(std::move(fd), path, error) : nullptr;
}

static_assert(kSocketStream == SOCK_STREAM && kSocketDatagram == SOCK_DGRAM);
static_assert(kProtocolTcp == IPPROTO_TCP && kProtocolUdp == IPPROTO_UDP);

bool StartSocketLibrary()
{
    return true;
}

bool StopSocketLibrary()
{
    return true;
}

int32_t OpenInetSocket(int32_t type, int32_t protocol)
{
    return socket(AF_INET, type | SOCK_CLOEXEC, protocol);
}

bool CloseInetSocket(int32_t socketHandle)
{
    return close(socketHandle) == 0;
}

bool ResolveInetHost(const std::string &hostName, uint32_t &address)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    addrinfo *found = nullptr;
    if (getaddrinfo(hostName.c_str(), nullptr, &wanted, &found) != 0)
        return false;
    sockaddr_in first{};
    std::memcpy(&first, found->ai_addr, sizeof(first));
    freeaddrinfo(found);
    address = first.sin_addr.s_addr;
    return true;
}

bool ConnectInetSocket(int32_t socketHandle, uint32_t address, uint16_t port)
{
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    peer.sin_addr.s_addr = address;
    return connect(socketHandle, reinterpret_cast<const sockaddr *>(&peer), sizeof(peer)) == 0;
}

// The kernel reports an error of the last datagram at the next send, which then sends nothing.
int32_t SendOnSocket(int32_t socketHandle, const void *data, int32_t length)
{
    ssize_t sent = send(socketHandle, data, static_cast<size_t>(length), MSG_NOSIGNAL);
    int type = 0;
    socklen_t size = sizeof(type);
    if (sent < 0 && errno == ECONNREFUSED &&
        getsockopt(socketHandle, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_DGRAM)
        sent = send(socketHandle, data, static_cast<size_t>(length), MSG_NOSIGNAL);
    return static_cast<int32_t>(sent);
}

} // namespace fodr::platform
