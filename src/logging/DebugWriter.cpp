#include "logging/DebugWriter.h"

#include "platform/Process.h"

namespace fodr {

bool DebugWriter::OpenSink()
{
    return true;
}

bool DebugWriter::WriteMessage(const LogMessage &message)
{
    platform::DebugOutput(message.TextToWrite());
    return true;
}

bool DebugWriter::CloseSink()
{
    return true;
}

} // namespace fodr
