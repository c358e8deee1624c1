// Text on its way to and from Windows, whose wide characters are UTF-16 units.
#pragma once

#include <string>
#include <string_view>

namespace fodr::platform {

static_assert(sizeof(wchar_t) == sizeof(char16_t));

inline const wchar_t *AsWide(const char16_t *text)
{
    return reinterpret_cast<const wchar_t *>(text);
}

inline const char16_t *AsUtf16(const wchar_t *text)
{
    return reinterpret_cast<const char16_t *>(text);
}

// False for a text that isn't valid UTF-8, or that has a zero in it and would be cut there.
[[nodiscard]] bool Widen(std::string_view text, std::wstring &wide);
// What isn't valid UTF-16, which the system lets names be, becomes U+FFFD.
std::string Narrow(std::wstring_view wide);

} // namespace fodr::platform
