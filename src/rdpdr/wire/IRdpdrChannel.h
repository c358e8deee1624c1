// The way up from the protocol to the channel: packets out, and status texts to whoever gave a command.
// Both operations may be called from any thread at once.
#pragma once

namespace fodr {

class RdpdrStream;

class IRdpdrChannel {
public:
    // Tells the host's observers `message` under the cookie of the command that it answers; the cookie may be
    // null or empty. False when there is nobody to tell.
    virtual bool NotifyODPObserver(const char *cookie, const char *message) = 0;
    // Sends one whole packet: all bytes of the stream, wherever its cursor is. The stream stays with the
    // caller and may wrap a buffer on the stack. False when it couldn't be sent.
    virtual bool WriteChannel(RdpdrStream *packet) = 0;

protected:
    ~IRdpdrChannel() = default;
};

} // namespace fodr
