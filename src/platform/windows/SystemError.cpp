#include "platform/SystemError.h"

#include "platform/windows/Win32.h"

namespace fodr::platform {

uint32_t LastSystemError()
{
    return GetLastError();
}

std::string SystemErrorText(uint32_t code)
{
    wchar_t *text = nullptr;
    // The width mask makes one line of a message of several; the language is the user's.
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                            FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                                        nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                        reinterpret_cast<wchar_t *>(&text), 0, nullptr);
    std::string sentence = Narrow(std::wstring_view(text ? text : L"", length));
    LocalFree(text);
    const size_t end = sentence.find_last_not_of("\r\n .");
    sentence.resize(end == std::string::npos ? 0 : end + 1);
    return sentence.empty() ? "Unknown error " + std::to_string(code) : sentence;
}

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
