// Unicode simple case folding of single UTF-16 units. Any thread; needs no locale.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace fodr {

// By high byte: null (the units fold to themselves) or the folded units by low byte.
extern const std::array<const char16_t *, 256> kCaseFoldingPages;

inline char16_t FoldUnit(char16_t unit)
{
    const char16_t *page = kCaseFoldingPages[unit >> 8];
    return page ? page[unit & 0xFF] : unit;
}

// Every unit folded. Characters beyond 0xFFFF stay as they are.
inline std::u16string FoldText(std::u16string_view text)
{
    std::u16string folded(text);
    for (char16_t &unit : folded)
        unit = FoldUnit(unit);
    return folded;
}

inline bool EqualsFolded(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i] && FoldUnit(a[i]) != FoldUnit(b[i]))
            return false;
    }
    return true;
}

// Comparison without case of ASCII letters, as _stricmp and _strnicmp do it in the C locale: other bytes
// compare by value. Any thread.
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
