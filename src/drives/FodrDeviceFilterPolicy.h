// The vendor and product rules of the agent's policy: devices that may not be shared (type 0) and devices
// that alone may be shared (type 1). What is uncertain is allowed.
//
// No lock: lists are written while a policy is read and only read after that.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

class FodrDeviceFilterPolicy {
public:
    // Rules of a list: every open looks at all of them. A longer list of devices to be kept out keeps out
    // every device, of one of devices to be let in the first ones count.
    static constexpr size_t kMostRules = 1024;

    static constexpr int32_t kExclude = 0;
    static constexpr int32_t kInclude = 1;

    // Replaces the list of `type` by the well-formed rules of the text ("vid-0781_pid-****;..."); the others
    // are logged and left out. An unknown type changes nothing.
    void ParsePolicy(const std::string &text, int32_t type);
    void ParseVidPidPolicy(const std::string &text, std::vector<std::string> &list);
    // Whether there is such a list and it isn't empty.
    bool GetPolicyList(int32_t type) const;
    bool AllowToShareByPolicy(const std::string &deviceInfo, int32_t type) const;

private:
    const std::vector<std::string> *ListOf(int32_t type) const;
    std::string GetDeviceProperty(const std::string &deviceInfo, int32_t type) const;

    // Eight characters an entry, vendor and product, each a hexadecimal digit or "*".
    std::vector<std::string> excludeList;
    std::vector<std::string> includeList;
};

// What the policy says of a device, asked by those below it.

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
