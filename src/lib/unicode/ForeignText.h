// Text of others on its way to a terminal, into JSON or into an environment. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace fodr {

// What a terminal shows as it is stays. Everything that could steer it or mislead the eye is written out:
// control characters and bytes that aren't UTF-8 as \x1b, marks of direction and line ends as \u202e.
[[nodiscard]] std::string Escaped(std::string_view text);

// A JSON string with its quotes. Always valid UTF-8: bytes that are none become U+FFFD.
[[nodiscard]] std::string QuotedJson(std::string_view text);

// Whether this is an absolute POSIX path of at most 4096 bytes that Escaped leaves as it is, and no component
// is empty, "." or "..".
[[nodiscard]] bool IsPlainAbsolutePath(std::string_view text);

// A rule of the device filter, "vid-0781_pid-5567": the vendor and the product of a USB device, four
// hexadecimal digits each, in either case, of which any may be '*' for every digit.

// Between the rules of a list.
inline constexpr char kDeviceRuleSeparator = ';';

// `ids`: the eight digits as they are written. False for what isn't a rule.
[[nodiscard]] bool ParseDeviceRule(std::string_view rule, std::string &ids);

} // namespace fodr
