// The lock of all that logs.
#pragma once

#include "runtime/OVMutex.h"

namespace fodr {

// One recursive mutex for the process, made on first use and never destroyed. Every log call and every change
// of a logger or a writer holds it; the poll thread takes it as its own lock. No lock is taken before it by
// the log path, and it may be taken under any other.
OVMutex &LoggerMutex();

} // namespace fodr
