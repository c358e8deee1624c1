// Where code of ours is called by others: the host, or a thread that only runs tasks.
#pragma once

#include "runtime/LogCall.h"

#include <exception>
#include <type_traits>

namespace fodr {

// Runs call(). What it throws, for want of memory for example, ends here with a line in the log. True when
// nothing was thrown. The name is the one that the line carries.
template <typename Call> bool CallWithoutThrowing(const char *functionName, const Call &call) noexcept
{
    constexpr const char *kFormat = "Stopped by an exception: %s\n";
    try {
        call();
        return true;
    } catch (const std::exception &exception) {
        if (IsLogEnabled(LOG_LEVEL_ERROR))
            LogWrite(functionName, LOG_LEVEL_ERROR, kFormat, exception.what());
    } catch (...) {
        if (IsLogEnabled(LOG_LEVEL_ERROR))
            LogWrite(functionName, LOG_LEVEL_ERROR, kFormat, "unknown");
    }
    return false;
}

// The same function with nothing thrown; its result is false, 0 or null then.
template <auto Function> struct NoThrow;
template <typename Result, typename... Arguments, Result (*Function)(Arguments...)> struct NoThrow<Function> {
    static Result Call(Arguments... arguments) noexcept
    {
        constexpr const char *kName = "NoThrow::Call()";
        if constexpr (std::is_void_v<Result>) {
            CallWithoutThrowing(kName, [&] { Function(arguments...); });
        } else {
            Result result{};
            CallWithoutThrowing(kName, [&] { result = Function(arguments...); });
            return result;
        }
    }
};

} // namespace fodr
