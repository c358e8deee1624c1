// Log lines to the system's debug channel.
#pragma once

#include "logging/LogWriter.h"

namespace fodr {

class DebugWriter : public LogWriter {
public:
    DebugWriter() : LogWriter(LOG_WRITER_DEBUG) {}

    bool OpenSink() override;
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override;
};

} // namespace fodr
