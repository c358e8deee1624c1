#include "logging/LogWriterFactory.h"

#include "logging/DebugWriter.h"
#include "logging/FileWriter.h"
#include "logging/ProxyWriter.h"
#include "logging/SocketWriter.h"
#include "logging/StdErrWriter.h"
#include "logging/StdOutWriter.h"

namespace fodr {

RCPtr<LogWriter> NewLogWriter(int32_t type)
{
    switch (type) {
    case LOG_WRITER_DEBUG:
        return new DebugWriter;
    case LOG_WRITER_FILE:
        return new FileWriter;
    case LOG_WRITER_PROXY:
        return new ProxyWriter;
    case LOG_WRITER_SOCKET:
        return new SocketWriter;
    case LOG_WRITER_STDOUT:
        return new StdOutWriter;
    case LOG_WRITER_STDERR:
        return new StdErrWriter;
    default:
        return nullptr;
    }
}

} // namespace fodr
