// The plug-in's logger: brought up when the host initialises the plug-in, taken down when it exits.
#pragma once

#include "logging/Logger.h"
#include "runtime/RCPtr.h"

#include <cstdint>
#include <string>

namespace fodr {

// Starts and stops on the thread that initialises the plug-in.
class FodrLogger {
public:
    FodrLogger() = default;
    ~FodrLogger();
    FodrLogger(const FodrLogger &) = delete;
    FodrLogger &operator=(const FodrLogger &) = delete;

    // `logToken` names the log files. What fails is told to the debug channel, and there is no log then.
    void Start(const char *logToken);
    void Stop();

    // The level that messages are held against now; 0 without a logger.
    int32_t Level() const;

private:
    RCPtr<Logger> logger;
    const std::string name = "FodrLogger";
};

} // namespace fodr
