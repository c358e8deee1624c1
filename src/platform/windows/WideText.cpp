#include "platform/windows/WideText.h"

#include "platform/windows/Win32.h"

namespace fodr::platform {

bool Widen(std::string_view text, std::wstring &wide)
{
    wide.clear();
    if (text.empty())
        return true;
    const int length = static_cast<int>(text.size());
    const int needed = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, nullptr, 0);
    if (needed <= 0)
        return false;
    wide.resize(static_cast<size_t>(needed));
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, wide.data(), needed);
    return wide.find(L'\0') == std::wstring::npos;
}

std::string Narrow(std::wstring_view wide)
{
    if (wide.empty())
        return {};
    const int length = static_cast<int>(wide.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<size_t>(needed > 0 ? needed : 0), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, text.data(), needed, nullptr, nullptr);
    return text;
}

} // namespace fodr::platform
