// The sinks other than the file.
#pragma once

#include "logging/LogWriter.h"

#include <cstdint>
#include <string>

namespace fodr {

class OVSocket;

// Log lines to the standard output stream.
class StdOutWriter : public LogWriter {
public:
    StdOutWriter() : LogWriter(LOG_WRITER_STDOUT) {}

    bool OpenSink() override { return true; }
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override { return true; }
};

// Log lines to the standard error stream.
class StdErrWriter : public LogWriter {
public:
    StdErrWriter() : LogWriter(LOG_WRITER_STDERR) {}

    bool OpenSink() override { return true; }
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override { return true; }
};

// Log lines to the system's debug channel.
class DebugWriter : public LogWriter {
public:
    DebugWriter() : LogWriter(LOG_WRITER_DEBUG) {}

    bool OpenSink() override { return true; }
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override { return true; }
};

// Log lines to a function of the process that this log is embedded in.
// A line that this writer began carries its origin and level: "@PROXY/3Class::Method()/text". They are taken
// off again and passed on. A line that another writer began arrives as plain text at level ALWAYS.
class ProxyWriter : public LogWriter {
public:
    using LogFunction = void (*)(const char *functionName, int32_t level, const char *format, ...);

    ProxyWriter() : LogWriter(LOG_WRITER_PROXY) {}

    // Before the writer is opened. The function outlives the writer or its closing.
    void SetLogFunction(LogFunction function) { logFunction = function; }

    bool OpenSink() override;
    // False without a function, and for a line whose origin doesn't end.
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override;
    int FormatPrefix(char *buffer, size_t size, const char *functionName, int32_t level) override;

private:
    LogFunction logFunction = nullptr;
};

// Log lines as datagrams to a receiver of syslog messages.
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

// A new writer. Null for a number that is no LogWriterType.
RCPtr<LogWriter> NewLogWriter(int32_t type);

} // namespace fodr
