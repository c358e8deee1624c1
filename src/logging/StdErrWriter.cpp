#include "logging/StdErrWriter.h"

#include "platform/Process.h"

#include <cstring>

namespace fodr {

bool StdErrWriter::OpenSink()
{
    return true;
}

bool StdErrWriter::WriteMessage(const LogMessage &message)
{
    const char *text = message.TextToWrite();
    platform::WriteStandardError(text, strlen(text));
    return true;
}

bool StdErrWriter::CloseSink()
{
    return true;
}

} // namespace fodr
