#include "logging/StdOutWriter.h"

#include "platform/Process.h"

namespace fodr {

bool StdOutWriter::OpenSink()
{
    return true;
}

bool StdOutWriter::WriteMessage(const LogMessage &message)
{
    platform::WriteStandardOutput(message.TextToWrite()); // whoever reads along sees the line now
    return true;
}

bool StdOutWriter::CloseSink()
{
    return true;
}

} // namespace fodr
