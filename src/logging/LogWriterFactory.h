// Makes writers by their type.
#pragma once

#include "logging/LogWriter.h"

namespace fodr {

// Null for a number that is no LogWriterType.
RCPtr<LogWriter> NewLogWriter(int32_t type);

} // namespace fodr
