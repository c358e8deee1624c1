#include "platform/linux/FdStream.h"

#include <unistd.h>

#include <arpa/inet.h>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/socket.h>

namespace fodr::platform {
namespace {

// An IPv4 address counts as its form in IPv6: one end of a connection may see it so.
struct Endpoint {
    in6_addr address{};
    uint16_t port = 0;

    bool operator==(const Endpoint &other) const
    {
        return port == other.port && memcmp(&address, &other.address, sizeof(address)) == 0;
    }
    bool IsLoopback() const
    {
        return IN6_IS_ADDR_LOOPBACK(&address) ||
               (IN6_IS_ADDR_V4MAPPED(&address) && address.s6_addr[12] == 127);
    }
};

in6_addr Mapped(uint32_t networkOrder)
{
    in6_addr address{};
    address.s6_addr[10] = address.s6_addr[11] = 0xFF;
    memcpy(&address.s6_addr[12], &networkOrder, sizeof(networkOrder));
    return address;
}

std::optional<Endpoint> EndpointOf(const sockaddr_storage &name)
{
    if (name.ss_family == AF_INET) {
        const auto &four = reinterpret_cast<const sockaddr_in &>(name);
        return Endpoint{Mapped(four.sin_addr.s_addr), ntohs(four.sin_port)};
    }
    if (name.ss_family == AF_INET6) {
        const auto &six = reinterpret_cast<const sockaddr_in6 &>(name);
        return Endpoint{six.sin6_addr, ntohs(six.sin6_port)};
    }
    return {};
}

// As proc(5) writes it: the words of the address in the machine's byte order, a colon, the port.
std::optional<Endpoint> ParseEndpoint(const char *text)
{
    const char *const colon = strchr(text, ':');
    const size_t digits = colon ? static_cast<size_t>(colon - text) : 0;
    if (digits != 8 && digits != 32)
        return {};
    Endpoint place;
    uint32_t words[4] = {};
    for (size_t i = 0; i < digits / 8; ++i) {
        if (sscanf(text + 8 * i, "%8" SCNx32, &words[i]) != 1)
            return {};
    }
    if (sscanf(colon + 1, "%4" SCNx16, &place.port) != 1)
        return {};
    if (digits == 8)
        place.address = Mapped(words[0]);
    else
        memcpy(&place.address, words, sizeof(words));
    return place;
}

// The user of the socket that is bound to `own` and connected to `other`.
std::optional<uid_t> UserOf(const char *table, const Endpoint &own, const Endpoint &other)
{
    std::ifstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        char local[64], remote[64];
        unsigned user = 0;
        unsigned long inode = 0;
        // One that was closed has no inode, and counts as root's whoever's it was.
        if (sscanf(line.c_str(), " %*d: %63s %63s %*s %*s %*s %*s %u %*s %lu", local, remote, &user,
                   &inode) == 4 &&
            inode != 0 && ParseEndpoint(local) == own && ParseEndpoint(remote) == other)
            return user;
    }
    return {};
}

} // namespace

bool LoopbackPeerIsThisUser(int socket)
{
    sockaddr_storage names[2]{};
    socklen_t size = sizeof(names[0]);
    if (getsockname(socket, reinterpret_cast<sockaddr *>(&names[0]), &size) != 0)
        return false;
    size = sizeof(names[1]);
    if (getpeername(socket, reinterpret_cast<sockaddr *>(&names[1]), &size) != 0)
        return false;
    const auto own = EndpointOf(names[0]), peer = EndpointOf(names[1]);
    if (!own || !peer || !own->IsLoopback() || !peer->IsLoopback())
        return false;
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        if (const auto user = UserOf(table, *peer, *own))
            return *user == geteuid();
    }
    return false;
}

} // namespace fodr::platform
