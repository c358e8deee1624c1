// Log lines to the standard error stream.
#pragma once

#include "logging/LogWriter.h"

namespace fodr {

class StdErrWriter : public LogWriter {
public:
    StdErrWriter() : LogWriter(LOG_WRITER_STDERR) {}

    bool OpenSink() override;
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override;
};

} // namespace fodr
