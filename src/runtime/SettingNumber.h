// Numbers in settings.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

namespace fodr {

// Too large a number is the largest one, and a minus, which strtoull has applied, counts back from behind
// that.
inline uint32_t SaturatedNumber(uint64_t number)
{
    constexpr uint64_t kLargest = UINT32_MAX;
    return number <= kLargest || number >= -kLargest ? static_cast<uint32_t>(number) : UINT32_MAX;
}

// Decimal, hexadecimal behind "0x" or octal behind "0"; up to the first character that doesn't belong to the
// number.
inline uint32_t ParseSettingNumber(const std::string &text)
{
    return SaturatedNumber(std::strtoull(text.c_str(), nullptr, 0));
}

} // namespace fodr
