// Unicode simple case folding of single UTF-16 units. Any thread; needs no locale.
#pragma once

#include <string>
#include <string_view>

namespace fodr {

// By high byte: null (the units fold to themselves) or the folded units by low byte.
extern const char16_t *const kCaseFoldingPages[256];

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

} // namespace fodr
