// Numbers in the settings of a sink.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

namespace fodr {

// Decimal, hexadecimal behind "0x" or octal behind "0"; up to the first character that doesn't belong to the
// number. Too large a number is the largest one, and a minus counts back from behind that.
inline uint32_t ParseSettingNumber(const std::string &text)
{
    unsigned long long number = std::strtoull(text.c_str(), nullptr, 0);
    constexpr unsigned long long kLargest = UINT32_MAX;
    return number <= kLargest || number >= -kLargest ? static_cast<uint32_t>(number) : UINT32_MAX;
}

} // namespace fodr
