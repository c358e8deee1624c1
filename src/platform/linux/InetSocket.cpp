#include "platform/InetSocket.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace fodr::platform {

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

// What the last datagram met is told to the next one, which isn't sent for it.
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
