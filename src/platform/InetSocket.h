// Sockets of the IPv4 family as the system has them, for datagrams; ByteStream.h has reliable streams. Any
// thread, but one thread at a time for each socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fodr::platform {

// The types and protocols have the same numbers everywhere.
inline constexpr int32_t kSocketStream = 1;
inline constexpr int32_t kSocketDatagram = 2;
inline constexpr int32_t kProtocolTcp = 6;
inline constexpr int32_t kProtocolUdp = 17;

inline constexpr int32_t kNoSocket = -1;

// Once before the first socket and after the last one, on systems that ask for it. False on failure.
bool StartSocketLibrary();
bool StopSocketLibrary();

// kNoSocket on failure. No child process inherits it.
int32_t OpenInetSocket(int32_t type, int32_t protocol);
bool CloseInetSocket(int32_t socketHandle);

// The first address of a name or of a dotted address, in network byte order.
bool ResolveInetHost(const std::string &hostName, uint32_t &address);
// A datagram socket thereby knows where it sends to, and nothing is sent.
bool ConnectInetSocket(int32_t socketHandle, uint32_t address, uint16_t port);
// How many bytes were taken, or a negative number. A peer that is gone never ends the process.
int32_t SendOnSocket(int32_t socketHandle, const void *data, int32_t length);

} // namespace fodr::platform
