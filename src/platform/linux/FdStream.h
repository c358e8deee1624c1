// The streams of ByteStream.h over file descriptors: sockets, and anything that poll understands.
#pragma once

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/ByteStream.h"

#include <string>

namespace fodr::platform {

// Owns one descriptor; -1 is none.
class Fd {
public:
    Fd() = default;
    explicit Fd(int descriptor) : value(descriptor) {}
    Fd(Fd &&other) noexcept : value(other.Release()) {}
    Fd &operator=(Fd &&other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    ~Fd() { Reset(-1); }

    int Get() const { return value; }
    bool Valid() const { return value >= 0; }
    int Release()
    {
        const int released = value;
        value = -1;
        return released;
    }
    void Reset(int descriptor);

private:
    int value = -1;
};

// A stream over one socket, which it owns.
std::unique_ptr<ByteStream> MakeSocketStream(Fd socket);
// A stream over two descriptors, each a socket or anything that poll understands.
std::unique_ptr<ByteStream> MakeFdStream(Fd readEnd, Fd writeEnd);

// The descriptors that the stream reads from and writes to; it keeps them. False for a stream without.
bool DescriptorsOf(const ByteStream &stream, int *readFd, int *writeFd);

// The sockets of ConnectLocal and ListenLocal, for more than bytes. Not valid on failure, with the reason in
// `*error`. A path that is listened on stays behind.
Fd ConnectLocalSocket(const std::string &path, std::string *error);
Fd ListenLocalSocket(const std::string &path, std::string *error);

// Fills `*error`, unless it is null, with the text of errno and gives null.
std::nullptr_t FailWithErrno(std::string *error);

} // namespace fodr::platform
