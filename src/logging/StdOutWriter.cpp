#include "logging/StdOutWriter.h"

#include <cstdio>

namespace fodr {

bool StdOutWriter::OpenSink()
{
    return true;
}

bool StdOutWriter::WriteMessage(const LogMessage &message)
{
    fputs(message.TextToWrite(), stdout);
    fflush(stdout); // whoever reads along sees the line now, also through a pipe
    return true;
}

bool StdOutWriter::CloseSink()
{
    return true;
}

} // namespace fodr
