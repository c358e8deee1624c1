// The streams of ByteStream.h over file descriptors: sockets, and anything that poll understands.
#pragma once

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/misc/Fd.h"
#include "platform/ByteStream.h"

#include <string>

namespace fodr::platform {

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
