#include "platform/InetSocket.h"

#include "platform/windows/Win32.h"

#include <cstring>

namespace fodr::platform {

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
