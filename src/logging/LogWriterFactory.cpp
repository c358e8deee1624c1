#include "logging/LogWriterFactory.h"

#if __has_include("logging/DebugWriter.h")
#include "logging/DebugWriter.h"
#define FODR_HAS_Debug
#endif
#if __has_include("logging/FileWriter.h")
#include "logging/FileWriter.h"
#define FODR_HAS_File
#endif
#if __has_include("logging/ProxyWriter.h")
#include "logging/ProxyWriter.h"
#define FODR_HAS_Proxy
#endif
#if __has_include("logging/SocketWriter.h")
#include "logging/SocketWriter.h"
#define FODR_HAS_Socket
#endif
#if __has_include("logging/StdErrWriter.h")
#include "logging/StdErrWriter.h"
#define FODR_HAS_StdErr
#endif
#if __has_include("logging/StdOutWriter.h")
#include "logging/StdOutWriter.h"
#define FODR_HAS_StdOut
#endif

namespace fodr {

RCPtr<LogWriter> NewLogWriter(int32_t type)
{
    switch (type) {
    case LOG_WRITER_DEBUG:
#ifdef FODR_HAS_Debug
        return new DebugWriter;
#else
        return nullptr;
#endif
    case LOG_WRITER_FILE:
#ifdef FODR_HAS_File
        return new FileWriter;
#else
        return nullptr;
#endif
    case LOG_WRITER_PROXY:
#ifdef FODR_HAS_Proxy
        return new ProxyWriter;
#else
        return nullptr;
#endif
    case LOG_WRITER_SOCKET:
#ifdef FODR_HAS_Socket
        return new SocketWriter;
#else
        return nullptr;
#endif
    case LOG_WRITER_STDOUT:
#ifdef FODR_HAS_StdOut
        return new StdOutWriter;
#else
        return nullptr;
#endif
    case LOG_WRITER_STDERR:
#ifdef FODR_HAS_StdErr
        return new StdErrWriter;
#else
        return nullptr;
#endif
    default:
        return nullptr;
    }
}

} // namespace fodr
