#include "platform/linux/FdStream.h"

#include "platform/linux/LoopbackPeer.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <utility>

namespace fodr::platform {
namespace {

constexpr size_t kMaxBlocks = 64;           // of one system call
constexpr int kLocalSocketBuffer = 4 << 20; // asked for; the kernel's limit may be lower
constexpr int kPipeBuffer = 1 << 20;
constexpr int kSlices = 4; // of the time that a write may take

bool IsSocket(int fd)
{
    struct stat facts {};
    return fstat(fd, &facts) == 0 && S_ISSOCK(facts.st_mode);
}

bool IsPipe(int fd)
{
    struct stat facts {};
    return fstat(fd, &facts) == 0 && S_ISFIFO(facts.st_mode);
}

// The flag belongs to the open pipe, which other processes may hold as well; opening it anew gives one of
// ours.
Fd OwnNonBlocking(Fd fd, int access)
{
    if (IsPipe(fd.Get())) {
        const std::string name = "/proc/self/fd/" + std::to_string(fd.Get());
        Fd own(open(name.c_str(), access | O_NONBLOCK | O_CLOEXEC));
        if (own)
            fd = std::move(own);
        fcntl(fd.Get(), F_SETPIPE_SZ, kPipeBuffer);
    }
    const int flags = fcntl(fd.Get(), F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK) == 0)
        fcntl(fd.Get(), F_SETFL, flags | O_NONBLOCK);
    return fd;
}

void TuneSocket(int fd)
{
    sockaddr_storage name{};
    socklen_t size = sizeof(name);
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size) != 0)
        return;
    if (name.ss_family == AF_UNIX) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kLocalSocketBuffer, sizeof(kLocalSocketBuffer));
    } else {
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    }
}

// A write to a closed pipe has to fail instead of ending the process. Sockets say so call by call.
void IgnorePipeSignal()
{
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_DFL)
        std::signal(SIGPIPE, SIG_IGN);
}

class FdStream final : public ByteStream {
public:
    FdStream(Fd readEnd, Fd writeEnd, Fd wake) : wakeFd(std::move(wake))
    {
        readIsSocket = IsSocket(readEnd.Get());
        writeIsSocket = !writeEnd || IsSocket(writeEnd.Get());
        readFd = readIsSocket ? std::move(readEnd) : OwnNonBlocking(std::move(readEnd), O_RDONLY);
        if (writeEnd)
            writeFd = writeIsSocket ? std::move(writeEnd) : OwnNonBlocking(std::move(writeEnd), O_WRONLY);
        if (readIsSocket)
            TuneSocket(readFd.Get());
        if (writeFd && writeIsSocket)
            TuneSocket(writeFd.Get());
        if (!writeIsSocket)
            IgnorePipeSignal();
    }

    ptrdiff_t Read(std::span<std::byte> buffer, int timeoutMS) override
    {
        return readIsSocket ? ReadSocket(buffer, timeoutMS) : ReadPolled(buffer, timeoutMS);
    }

    bool Write(std::span<const ByteView> blocks) override
    {
        while (!blocks.empty()) {
            Vectors vectors;
            const std::span<iovec> some = VectorsOf(blocks, &vectors);
            if (!WriteVectors(some))
                return false;
            blocks = blocks.subspan(some.size());
        }
        return true;
    }

    size_t TryWrite(std::span<const ByteView> blocks) override
    {
        Vectors vectors;
        const ssize_t written = shutDown ? 0 : WriteOnce(VectorsOf(blocks, &vectors), MSG_DONTWAIT);
        return written > 0 ? static_cast<size_t>(written) : 0;
    }

    void SetWriteTimeout(int timeoutMS) override
    {
        writeSliceMS = std::max(timeoutMS / kSlices, 1);
        const timeval time{writeSliceMS / 1000, (writeSliceMS % 1000) * 1000};
        writeWaits = writeIsSocket && (fcntl(WriteEnd(), F_GETFL) & O_NONBLOCK) == 0 &&
                     setsockopt(WriteEnd(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time)) == 0;
    }
    bool WriteTimedOut() const override { return writeTimedOut; }

    void Shutdown() override
    {
        shutDown = true;
        if (readIsSocket)
            shutdown(readFd.Get(), SHUT_RDWR);
        if (writeFd && writeIsSocket)
            shutdown(writeFd.Get(), SHUT_RDWR);
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(wakeFd.Get(), &one, sizeof(one));
        // The peer of a pipe sees the end when its descriptor goes. The number stays taken, as another thread
        // may be using it.
        if (!readIsSocket)
            dup3(wakeFd.Get(), readFd.Get(), O_CLOEXEC);
        if (writeFd && !writeIsSocket)
            dup3(wakeFd.Get(), writeFd.Get(), O_CLOEXEC);
    }

    int ReadEnd() const { return readFd.Get(); }
    int WriteEnd() const { return writeFd ? writeFd.Get() : readFd.Get(); }

    bool PeerIsThisUser() const override
    {
        ucred peer{};
        socklen_t size = sizeof(peer);
        if (readIsSocket && LoopbackPeerIsThisUser(readFd.Get()))
            return true;
        return readIsSocket && getsockopt(readFd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
               size == sizeof(peer) && peer.pid != 0 && peer.uid == geteuid();
    }

private:
    ptrdiff_t ReadSocket(std::span<std::byte> buffer, int timeoutMS)
    {
        if (timeoutMS != receiveTimeoutMS) {
            const int bounded = std::max(timeoutMS, 0); // 0 is no limit to the kernel
            const timeval time{bounded / 1000, (bounded % 1000) * 1000};
            if (setsockopt(readFd.Get(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof(time)) != 0)
                return kFailed;
            receiveTimeoutMS = timeoutMS;
        }
        for (;;) {
            const ssize_t got = recv(readFd.Get(), buffer.data(), buffer.size(), 0);
            if (got >= 0)
                return got;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return kTimedOut;
            if (errno != EINTR)
                return shutDown ? kEnd : kFailed;
        }
    }

    ptrdiff_t ReadPolled(std::span<std::byte> buffer, int timeoutMS)
    {
        while (!shutDown) {
            const ssize_t got = read(readFd.Get(), buffer.data(), buffer.size());
            if (got >= 0) // what came after Shutdown isn't the peer's
                return shutDown ? kEnd : got;
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                return kFailed;
            if (!WaitFor(readFd.Get(), POLLIN, timeoutMS))
                return kTimedOut;
        }
        return kEnd;
    }

    // False when the time ran out. Shutdown counts as ready.
    bool WaitFor(int fd, short events, int timeoutMS)
    {
        pollfd wanted[] = {{fd, events, 0}, {wakeFd.Get(), POLLIN, 0}};
        int ready;
        do
            ready = poll(wanted, 2, timeoutMS);
        while (ready < 0 && errno == EINTR);
        return ready != 0;
    }

    using Vectors = std::array<iovec, kMaxBlocks>;
    // The first blocks, as many as one system call takes.
    static std::span<iovec> VectorsOf(std::span<const ByteView> blocks, Vectors *vectors)
    {
        const size_t count = std::min(blocks.size(), kMaxBlocks);
        for (size_t i = 0; i < count; ++i)
            (*vectors)[i] = {const_cast<std::byte *>(blocks[i].data()), blocks[i].size()};
        return {vectors->data(), count};
    }

    // `flags` are for a socket; other descriptors never wait.
    ssize_t WriteOnce(std::span<iovec> vectors, int flags) const
    {
        if (!writeIsSocket)
            return writev(WriteEnd(), vectors.data(), static_cast<int>(vectors.size()));
        msghdr message{};
        message.msg_iov = vectors.data();
        message.msg_iovlen = vectors.size();
        return sendmsg(WriteEnd(), &message, MSG_NOSIGNAL | flags);
    }

    // What the kernel still holds for the peer.
    int Untaken() const
    {
        int bytes = 0;
        ioctl(WriteEnd(), writeIsSocket ? SIOCOUTQ : FIONREAD, &bytes);
        return bytes;
    }

    bool WriteVectors(std::span<iovec> vectors)
    {
        // The kernel wants more of new data only when much of the old is gone, which takes long over a slow
        // line. So what counts is that the old gets less.
        int untaken = 0;
        int stalls = 0;
        while (!vectors.empty() && !shutDown) {
            const ssize_t written = WriteOnce(vectors, 0);
            if (written < 0 && errno == EINTR)
                continue;
            if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                if (!writeWaits && WaitFor(WriteEnd(), POLLOUT, writeSliceMS))
                    continue;
                const int before = std::exchange(untaken, Untaken());
                stalls = untaken < before ? 0 : stalls + 1;
                writeTimedOut = stalls >= kSlices;
                if (writeTimedOut)
                    return false;
                continue;
            }
            if (written < 0)
                return false;
            stalls = 0;
            vectors = Advance(vectors, static_cast<size_t>(written));
        }
        return vectors.empty();
    }

    static std::span<iovec> Advance(std::span<iovec> vectors, size_t written)
    {
        while (!vectors.empty() && written >= vectors.front().iov_len) {
            written -= vectors.front().iov_len;
            vectors = vectors.subspan(1);
        }
        if (!vectors.empty()) {
            vectors.front().iov_base = static_cast<std::byte *>(vectors.front().iov_base) + written;
            vectors.front().iov_len -= written;
        }
        return vectors;
    }

    Fd readFd;
    Fd writeFd; // none: the socket in readFd is written to
    const Fd wakeFd;
    bool readIsSocket = false;
    bool writeIsSocket = false;
    int receiveTimeoutMS = kNoTimeout; // the reader's
    int writeSliceMS = kNoTimeout;
    bool writeWaits = false; // for a slice, in the system call
    std::atomic<bool> writeTimedOut{false};
    std::atomic<bool> shutDown{false};
};

} // namespace

std::nullptr_t FailWithErrno(std::string *error)
{
    if (error != nullptr)
        *error = std::strerror(errno);
    return nullptr;
}

std::unique_ptr<ByteStream> MakeSocketStream(Fd socket)
{
    return MakeFdStream(std::move(socket), Fd());
}

std::unique_ptr<ByteStream> MakeFdStream(Fd readEnd, Fd writeEnd)
{
    Fd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake || !readEnd)
        return nullptr;
    return std::make_unique<FdStream>(std::move(readEnd), std::move(writeEnd), std::move(wake));
}

bool DescriptorsOf(const ByteStream &stream, int *readFd, int *writeFd)
{
    const auto *ours = dynamic_cast<const FdStream *>(&stream);
    if (ours != nullptr) {
        *readFd = ours->ReadEnd();
        *writeFd = ours->WriteEnd();
    }
    return ours != nullptr;
}

std::unique_ptr<ByteStream> OpenStandardStream(std::string *error)
{
    Fd in(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    Fd out(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    Fd nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    // A stray print must not get between the frames.
    if (!in || !out || !nothing || dup2(nothing.Get(), STDIN_FILENO) < 0 ||
        dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
        return FailWithErrno(error);
    auto stream = MakeFdStream(std::move(in), std::move(out));
    return stream ? std::move(stream) : FailWithErrno(error);
}

std::pair<std::unique_ptr<ByteStream>, std::unique_ptr<ByteStream>> MakeStreamPair()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return {};
    return {MakeSocketStream(Fd(ends[0])), MakeSocketStream(Fd(ends[1]))};
}

} // namespace fodr::platform
