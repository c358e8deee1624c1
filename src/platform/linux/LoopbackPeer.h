// Who is at the other end of a TCP connection within this machine.
#pragma once

#ifndef __linux__
#error "this file is the Linux side"
#endif

namespace fodr::platform {

// True when both ends are loopback addresses and the other socket belongs to this process's user. False once
// the other end has been closed.
bool LoopbackPeerIsThisUser(int socket);

} // namespace fodr::platform
