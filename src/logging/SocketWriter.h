// Log lines as datagrams to a receiver of syslog messages.
#pragma once

#include "logging/LogWriter.h"

#include <cstdint>
#include <memory>
#include <string>

namespace fodr {

class OVSocket;

// Buffered from the start. The syslog header is only on the wire where this is
// the logger's first open writer: the first one makes the prefix for all.
class SocketWriter : public LogWriter {
public:
    SocketWriter();
    ~SocketWriter() override;

    // "remoteAddress" and "remotePort", without regard to case, until the logger
    // has started. Any other name is taken and ignored; an empty name or value
    // isn't taken.
    bool SetValue(const std::string &name, const std::string &value) override;
    bool GetValue(const std::string &name, std::string &value) override;
    // False where there is no socket or the address has no meaning; a receiver
    // needn't be there.
    bool OpenSink() override;
    // One datagram; false when it wasn't sent whole.
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override;
    // As RFC 5424 begins a message, with one nil field less than it has; the
    // priority and the version are 1.
    int FormatPrefix(char *buffer, size_t size, const char *functionName, int32_t level) override;

private:
    std::string appName;
    std::string remoteAddress;
    uint16_t remotePort = 514;
    RCPtr<OVSocket> socket; // null while closed
};

} // namespace fodr
