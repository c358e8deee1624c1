// The plug-in's logger: brought up when the host initialises the plug-in, taken down when it exits.
#pragma once

#include "runtime/LogCall.h"

#include <cstdint>

namespace fodr {

class FodrLogger {
public:
    // `logToken` names the log files. Lines go to standard error while FODR_LOG_STDERR is set, else nowhere.
    void Start(const char *logToken);
    void Stop();

    // The level that messages are held against now.
    int32_t Level() const { return gLogLevel.load(std::memory_order_relaxed); }
};

} // namespace fodr
