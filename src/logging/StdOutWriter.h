// Log lines to the standard output stream.
#pragma once

#include "logging/LogWriter.h"

namespace fodr {

class StdOutWriter : public LogWriter {
public:
    StdOutWriter() : LogWriter(LOG_WRITER_STDOUT) {}

    bool OpenSink() override;
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override;
};

} // namespace fodr
