// Log lines to a function of the process that this log is embedded in.
#pragma once

#include "logging/LogWriter.h"

namespace fodr {

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

} // namespace fodr
