#include "logging/PollLogWriter.h"

namespace fodr {

LogWriter::PollLogWriter::PollLogWriter(LogWriter *ownWriter) : OVPollItem("LogWriter"), writer(ownWriter) {}

bool LogWriter::PollLogWriter::Run(bool)
{
    inPoll = true;
    writer->Drain();
    inPoll = false;
    return true;
}

} // namespace fodr
