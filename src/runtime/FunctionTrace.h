// Logs "Enter" where it is made and "Exit" where its scope ends, at TRACE.
#pragma once

#include "runtime/LogCall.h"

namespace fodr {

// While the level is off it costs one read and a compare.
class FunctionTrace {
public:
    // The name outlives the object.
    explicit FunctionTrace(const char *name) : functionName(IsLogEnabled(LOG_LEVEL_TRACE) ? name : nullptr)
    {
        if (functionName)
            LogWrite(functionName, LOG_LEVEL_TRACE, "Enter");
    }
    ~FunctionTrace()
    {
        if (functionName)
            LogWrite(functionName, LOG_LEVEL_TRACE, "Exit");
    }
    FunctionTrace(const FunctionTrace &) = delete;
    FunctionTrace &operator=(const FunctionTrace &) = delete;

private:
    const char *const functionName; // null while the level is off
};

} // namespace fodr

#define FODR_TRACE_FUNCTION()                                                                                \
    static constexpr ::fodr::detail::MethodName fodrTracedName(__PRETTY_FUNCTION__);                         \
    const ::fodr::FunctionTrace fodrFunctionTrace(fodrTracedName.text)
