#include "runtime/UserDataMap.h"

#include "platform/Process.h"

#include <atomic>

namespace fodr {

uint64_t UserDataSeed()
{
    static const uint64_t seed = [] {
        uint32_t sessionId;
        platform::CurrentSessionId(sessionId);
        return uint64_t{platform::CurrentProcessId()} << 48 | uint64_t{sessionId & 0xFFFF} << 32;
    }();
    return seed;
}

uint32_t NextUserDataNumber()
{
    static std::atomic<uint32_t> number{0};
    return ++number;
}

} // namespace fodr
