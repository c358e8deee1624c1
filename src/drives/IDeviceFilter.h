// What the policy says of a device, asked by those below it.
#pragma once

#include <string>

namespace fodr {

// Any thread.
class IDeviceFilter {
public:
    // False when no rule is in force, which spares the caller the search for the device.
    virtual bool HasDeviceFilter() = 0;
    // `deviceInfo` as FodrDeviceUtils::GetDeviceInfo gives it; an empty one is allowed.
    virtual bool IsAllowedByDeviceFilter(const std::string &deviceInfo) = 0;
    virtual ~IDeviceFilter() = default;
};

} // namespace fodr
