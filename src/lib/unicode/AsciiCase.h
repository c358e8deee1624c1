// Comparison without case of ASCII letters, as _stricmp and _strnicmp do it in the C locale: other bytes
// compare by value. Any thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace fodr {

constexpr unsigned char AsciiToLower(char c)
{
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
}

// Negative, 0 or positive. At most `count` characters are looked at, none behind a terminator.
constexpr int AsciiCompareNoCase(const char *a, const char *b, size_t count = static_cast<size_t>(-1))
{
    for (size_t i = 0; i < count; ++i) {
        const int difference = AsciiToLower(a[i]) - AsciiToLower(b[i]);
        if (difference != 0 || a[i] == 0)
            return difference;
    }
    return 0;
}

constexpr bool AsciiEqualsNoCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (AsciiToLower(a[i]) != AsciiToLower(b[i]))
            return false;
    }
    return true;
}

// Orders names in containers.
struct AsciiLessNoCase {
    using is_transparent = void;
    constexpr bool operator()(std::string_view a, std::string_view b) const
    {
        const size_t shorter = a.size() < b.size() ? a.size() : b.size();
        for (size_t i = 0; i < shorter; ++i) {
            if (AsciiToLower(a[i]) != AsciiToLower(b[i]))
                return AsciiToLower(a[i]) < AsciiToLower(b[i]);
        }
        return a.size() < b.size();
    }
};

} // namespace fodr
