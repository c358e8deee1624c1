// A rule of the device filter, "vid-0781_pid-5567": the vendor and the product of a USB device, four
// hexadecimal digits each, in either case, of which any may be '*' for every digit.
#pragma once

#include <string>
#include <string_view>

namespace fodr {

// Between the rules of a list.
inline constexpr char kDeviceRuleSeparator = ';';

// `ids`: the eight digits as they are written. False for what isn't a rule.
[[nodiscard]] bool ParseDeviceRule(std::string_view rule, std::string &ids);

} // namespace fodr
