// TCP for ByteStream.h.

#include "platform/ByteStream.h"
#include "platform/SystemError.h"
#include "platform/windows/HandleStream.h"
#include "platform/windows/UserIdentity.h"
#include "platform/windows/Win32.h"

#include <iphlpapi.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace fodr::platform {

namespace {

class OwnedSocket {
public:
    explicit OwnedSocket(SOCKET opened = INVALID_SOCKET) : value(opened) {}
    OwnedSocket(OwnedSocket &&other) noexcept : value(std::exchange(other.value, INVALID_SOCKET)) {}
    OwnedSocket &operator=(OwnedSocket &&) = delete;
    ~OwnedSocket()
    {
        if (value != INVALID_SOCKET)
            closesocket(value);
    }
    SOCKET Get() const { return value; }
    explicit operator bool() const { return value != INVALID_SOCKET; }

private:
    SOCKET value;
};

// The library stays started to the end of the process.
bool StartSockets()
{
    static const int result = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data);
    }();
    return result == 0;
}

DWORD LastSocketError()
{
    return static_cast<DWORD>(WSAGetLastError());
}

// The process at the other end of a connection within this machine; 0 when there is none. IPv4 alone: what we
// listen on without a token is 127.0.0.1.
DWORD ProcessOfLoopbackPeer(SOCKET socket)
{
    sockaddr_in own{}, peer{};
    int ownSize = sizeof(own), peerSize = sizeof(peer);
    if (getsockname(socket, reinterpret_cast<sockaddr *>(&own), &ownSize) != 0 ||
        getpeername(socket, reinterpret_cast<sockaddr *>(&peer), &peerSize) != 0 ||
        own.sin_family != AF_INET || peer.sin_family != AF_INET)
        return 0;
    const auto isLoopback = [](const sockaddr_in &name) { return ntohl(name.sin_addr.s_addr) >> 24 == 127; };
    if (!isLoopback(own) || !isLoopback(peer))
        return 0;
    std::vector<std::byte> space;
    DWORD size = 64 * 1024, result;
    do {
        space.resize(size);
        result = GetExtendedTcpTable(space.data(), &size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_CONNECTIONS, 0);
    } while (result == ERROR_INSUFFICIENT_BUFFER);
    if (result != NO_ERROR)
        return 0;
    const auto *table = reinterpret_cast<const MIB_TCPTABLE_OWNER_PID *>(space.data());
    for (DWORD i = 0; i < table->dwNumEntries; ++i) {
        const MIB_TCPROW_OWNER_PID &row = table->table[i];
        if (row.dwLocalAddr == peer.sin_addr.s_addr && row.dwRemoteAddr == own.sin_addr.s_addr &&
            static_cast<u_short>(row.dwLocalPort) == peer.sin_port &&
            static_cast<u_short>(row.dwRemotePort) == own.sin_port)
            return row.dwOwningPid;
    }
    return 0;
}

bool LoopbackPeerIsThisUser(SOCKET socket)
{
    const DWORD id = ProcessOfLoopbackPeer(socket);
    const OwnedHandle process(id != 0 ? OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id) : nullptr);
    const std::wstring user = process ? UserOfProcess(process.Get()) : std::wstring();
    return !user.empty() && user == UserOfProcess(GetCurrentProcess());
}

class SocketEnd final : public StreamEnd {
public:
    explicit SocketEnd(OwnedSocket connected) : socket(std::move(connected))
    {
        const BOOL on = TRUE;
        setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char *>(&on), sizeof(on));
        setsockopt(socket.Get(), SOL_SOCKET, SO_KEEPALIVE, reinterpret_cast<const char *>(&on), sizeof(on));
    }

    DWORD StartRead(std::span<std::byte> buffer, OVERLAPPED *overlapped) override
    {
        WSABUF block{static_cast<ULONG>(buffer.size()), reinterpret_cast<char *>(buffer.data())};
        DWORD flags = 0;
        return Outcome(WSARecv(socket.Get(), &block, 1, nullptr, &flags, overlapped, nullptr) == 0);
    }
    DWORD StartWrite(ByteView data, OVERLAPPED *overlapped) override
    {
        // In pieces that the system's buffer takes: under Wine, a send that waits never hears of a reset.
        constexpr size_t kPiece = 64 * 1024;
        WSABUF block{static_cast<ULONG>(std::min(data.size(), kPiece)),
                     reinterpret_cast<char *>(const_cast<std::byte *>(data.data()))};
        return Outcome(WSASend(socket.Get(), &block, 1, nullptr, 0, overlapped, nullptr) == 0);
    }
    DWORD Finish(OVERLAPPED *overlapped, DWORD *moved) override
    {
        DWORD flags = 0;
        return Outcome(WSAGetOverlappedResult(socket.Get(), overlapped, moved, TRUE, &flags));
    }
    void Cancel(OVERLAPPED *overlapped) override
    {
        CancelIoEx(reinterpret_cast<HANDLE>(socket.Get()), overlapped);
    }
    // Receiving goes on inside: data that arrives at a socket which no longer receives would reset the
    // connection, and what was sent might be lost with it.
    bool EndSending() override
    {
        shutdown(socket.Get(), SD_SEND);
        return false;
    }

    bool PeerIsThisUser() const override { return LoopbackPeerIsThisUser(socket.Get()); }

private:
    static DWORD Outcome(bool succeeded) { return succeeded ? ERROR_SUCCESS : LastSocketError(); }

    const OwnedSocket socket;
};

std::unique_ptr<ByteStream> MakeSocketStream(OwnedSocket socket)
{
    return std::make_unique<HandleStream>(std::make_unique<SocketEnd>(std::move(socket)), nullptr);
}

struct AddressList {
    addrinfo *first = nullptr;
    AddressList() = default;
    ~AddressList() { freeaddrinfo(first); }
    AddressList(const AddressList &) = delete;
    AddressList &operator=(const AddressList &) = delete;
};

bool Resolve(const std::string &host, uint16_t port, int flags, AddressList *list, std::string *error)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    const std::string service = std::to_string(port);
    const int result = StartSockets() ? getaddrinfo(host.empty() ? nullptr : host.c_str(), service.c_str(),
                                                    &hints, &list->first)
                                      : WSANOTINITIALISED;
    if (result != 0)
        FailWith(error, static_cast<DWORD>(result));
    return result == 0;
}

void KeepFromChildren(const OwnedSocket &socket)
{
    SetHandleInformation(reinterpret_cast<HANDLE>(socket.Get()), HANDLE_FLAG_INHERIT, 0);
}

OwnedSocket OpenSocket(const addrinfo &address)
{
    const auto open = [&address](DWORD flags) {
        return OwnedSocket(WSASocketW(address.ai_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, flags));
    };
    OwnedSocket socket = open(WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (socket || LastSocketError() != WSAEINVAL)
        return socket;
    OwnedSocket plain = open(WSA_FLAG_OVERLAPPED); // Windows 7 without its service pack
    KeepFromChildren(plain);
    return plain;
}

// Waiting by events makes a socket non-blocking; this undoes both.
void MakeBlocking(SOCKET socket)
{
    u_long off = 0;
    WSAEventSelect(socket, nullptr, 0);
    ioctlsocket(socket, static_cast<long>(FIONBIO), &off);
}

// 0 or the error.
DWORD ConnectWithin(SOCKET socket, const addrinfo &address, DWORD timeoutMS)
{
    const OwnedHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (WSAEventSelect(socket, event.Get(), FD_CONNECT) != 0)
        return LastSocketError();
    if (connect(socket, address.ai_addr, static_cast<int>(address.ai_addrlen)) != 0) {
        if (LastSocketError() != WSAEWOULDBLOCK)
            return LastSocketError();
        if (WaitForSingleObject(event.Get(), timeoutMS) != WAIT_OBJECT_0)
            return WSAETIMEDOUT;
        WSANETWORKEVENTS happened{};
        if (WSAEnumNetworkEvents(socket, event.Get(), &happened) != 0)
            return LastSocketError();
        if (happened.iErrorCode[FD_CONNECT_BIT] != 0)
            return static_cast<DWORD>(happened.iErrorCode[FD_CONNECT_BIT]);
    }
    MakeBlocking(socket);
    return 0;
}

class SocketListener final : public StreamListener {
public:
    explicit SocketListener(OwnedSocket listening)
        : socket(std::move(listening)), arrived(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
          stop(CreateEventW(nullptr, TRUE, FALSE, nullptr))
    {
        WSAEventSelect(socket.Get(), arrived.Get(), FD_ACCEPT);
    }

    std::unique_ptr<ByteStream> Accept(int timeoutMS) override
    {
        for (;;) {
            const HANDLE handles[] = {stop.Get(), arrived.Get()};
            if (WaitForSingleObject(stop.Get(), 0) == WAIT_OBJECT_0)
                return nullptr;
            OwnedSocket peer(accept(socket.Get(), nullptr, nullptr));
            if (peer) {
                KeepFromChildren(peer);
                MakeBlocking(peer.Get());
                return MakeSocketStream(std::move(peer));
            }
            if (LastSocketError() != WSAEWOULDBLOCK && LastSocketError() != WSAECONNRESET)
                return nullptr;
            const DWORD waited = WaitForMultipleObjects(
                2, handles, FALSE, timeoutMS < 0 ? INFINITE : static_cast<DWORD>(timeoutMS));
            if (waited != WAIT_OBJECT_0 + 1)
                return nullptr;
        }
    }
    void Shutdown() override { SetEvent(stop.Get()); }
    uint16_t Port() const override
    {
        sockaddr_storage name{};
        int size = sizeof(name);
        if (getsockname(socket.Get(), reinterpret_cast<sockaddr *>(&name), &size) != 0)
            return 0;
        return ntohs(name.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6 *>(&name)->sin6_port
                                                : reinterpret_cast<const sockaddr_in *>(&name)->sin_port);
    }

private:
    const OwnedSocket socket;
    const OwnedHandle arrived;
    const OwnedHandle stop;
};

OwnedSocket BindAndListen(const addrinfo &address, DWORD *failure)
{
    OwnedSocket socket = OpenSocket(address);
    const BOOL on = TRUE;
    const DWORD off = 0;
    if (!socket) {
        *failure = LastSocketError();
        return socket;
    }
    // Not SO_REUSEADDR, which here lets another program take the port over.
    setsockopt(socket.Get(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char *>(&on),
               sizeof(on));
    if (address.ai_family == AF_INET6)
        setsockopt(socket.Get(), IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char *>(&off),
                   sizeof(off));
    if (bind(socket.Get(), address.ai_addr, static_cast<int>(address.ai_addrlen)) != 0 ||
        listen(socket.Get(), SOMAXCONN) != 0) {
        *failure = LastSocketError();
        return OwnedSocket();
    }
    return socket;
}

} // namespace

std::unique_ptr<ByteStream> ConnectTcp(const std::string &host, uint16_t port, int timeoutMS,
                                       std::string *error)
{
    AddressList list;
    if (!Resolve(host, port, 0, &list, error))
        return nullptr;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    DWORD failure = WSAHOST_NOT_FOUND;
    for (const addrinfo *address = list.first; address; address = address->ai_next) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        OwnedSocket socket = OpenSocket(*address);
        if (!socket) {
            failure = LastSocketError();
            continue;
        }
        const DWORD wait = timeoutMS < 0 ? INFINITE : static_cast<DWORD>(std::max<int64_t>(left.count(), 0));
        failure = ConnectWithin(socket.Get(), *address, wait);
        if (failure == 0)
            return MakeSocketStream(std::move(socket));
    }
    return FailWith(error, failure);
}

std::unique_ptr<StreamListener> ListenTcp(const std::string &address, uint16_t port, std::string *error)
{
    AddressList list;
    if (!Resolve(address, port, AI_PASSIVE, &list, error))
        return nullptr;
    DWORD failure = WSAEADDRNOTAVAIL;
    // On all addresses: an IPv6 socket serves both families, so it is tried first.
    for (const int family : {AF_INET6, AF_INET}) {
        for (const addrinfo *entry = list.first; entry; entry = entry->ai_next) {
            if (entry->ai_family != family)
                continue;
            OwnedSocket socket = BindAndListen(*entry, &failure);
            if (socket)
                return std::make_unique<SocketListener>(std::move(socket));
        }
    }
    return FailWith(error, failure);
}

static_assert(kSocketStream == SOCK_STREAM && kSocketDatagram == SOCK_DGRAM);
static_assert(kProtocolTcp == IPPROTO_TCP && kProtocolUdp == IPPROTO_UDP);

namespace {

// The system keeps the numbers of its handles below 2^32.
SOCKET SocketOf(int32_t socketHandle)
{
    return static_cast<SOCKET>(static_cast<uint32_t>(socketHandle));
}

} // namespace

bool StartSocketLibrary()
{
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 0), &data) == 0;
}

bool StopSocketLibrary()
{
    return WSACleanup() == 0;
}

int32_t OpenInetSocket(int32_t type, int32_t protocol)
{
    const SOCKET opened = socket(AF_INET, type, protocol);
    if (opened == INVALID_SOCKET)
        return kNoSocket;
    SetHandleInformation(reinterpret_cast<HANDLE>(opened), HANDLE_FLAG_INHERIT, 0);
    return static_cast<int32_t>(opened);
}

bool CloseInetSocket(int32_t socketHandle)
{
    return closesocket(SocketOf(socketHandle)) == 0;
}

bool ResolveInetHost(const std::string &hostName, uint32_t &address)
{
    const hostent *host = gethostbyname(hostName.c_str()); // the answer is kept for each thread
    if (!host || host->h_addrtype != AF_INET || !host->h_addr_list[0])
        return false;
    std::memcpy(&address, host->h_addr_list[0], sizeof(address));
    return true;
}

bool ConnectInetSocket(int32_t socketHandle, uint32_t address, uint16_t port)
{
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    peer.sin_addr.s_addr = address;
    return connect(SocketOf(socketHandle), reinterpret_cast<const sockaddr *>(&peer), sizeof(peer)) == 0;
}

int32_t SendOnSocket(int32_t socketHandle, const void *data, int32_t length)
{
    return send(SocketOf(socketHandle), static_cast<const char *>(data), length, 0);
}

} // namespace fodr::platform
