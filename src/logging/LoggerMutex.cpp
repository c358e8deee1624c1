#include "logging/LoggerMutex.h"

namespace fodr {

OVMutex &LoggerMutex()
{
    static OVMutex &loggerMutex = *new OVMutex; // outlives whatever logs while statics go
    return loggerMutex;
}

} // namespace fodr
