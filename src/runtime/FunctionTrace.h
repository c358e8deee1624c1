// Logs "Enter" where it is made and "Exit" where its scope ends, at TRACE.
#pragma once

#include "runtime/LogCall.h"

namespace fodr {

class FunctionTrace {
public:
    // The name outlives the object.
    explicit FunctionTrace(const char *name) : functionName(name) { Line("Enter"); }
    ~FunctionTrace() { Line("Exit"); }
    FunctionTrace(const FunctionTrace &) = delete;
    FunctionTrace &operator=(const FunctionTrace &) = delete;

private:
    void Line(const char *text) const
    {
        if (IsLogEnabled(LOG_LEVEL_TRACE))
            LogWrite(functionName, LOG_LEVEL_TRACE, "%s", text);
    }

    const char *functionName;
};

} // namespace fodr

#define FODR_TRACE_FUNCTION()                                                                                \
    static constexpr ::fodr::detail::MethodName fodrTracedName(__PRETTY_FUNCTION__);                         \
    const ::fodr::FunctionTrace fodrFunctionTrace(fodrTracedName.text)
