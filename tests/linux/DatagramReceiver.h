// A socket of this machine that takes datagrams.
#pragma once

#include <unistd.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

namespace fodr::test {

class DatagramReceiver {
public:
    // At any port that is free, or at this one.
    explicit DatagramReceiver(uint16_t port = 0)
    {
        address.sin_port = htons(port);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        const timeval limit{60, 0}; // ends a test that hangs
        EXPECT_EQ(0, setsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)));
        EXPECT_EQ(0, bind(handle, reinterpret_cast<sockaddr *>(&address), length));
        EXPECT_EQ(0, getsockname(handle, reinterpret_cast<sockaddr *>(&address), &length));
    }
    ~DatagramReceiver() { close(handle); }
    DatagramReceiver(const DatagramReceiver &) = delete;
    DatagramReceiver &operator=(const DatagramReceiver &) = delete;

    uint16_t Port() const { return ntohs(address.sin_port); }
    std::string Take() const
    {
        char datagram[2048];
        const ssize_t length = recv(handle, datagram, sizeof(datagram), 0);
        return length < 0 ? "nothing came" : std::string(datagram, static_cast<size_t>(length));
    }

private:
    const int handle = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
};

} // namespace fodr::test
