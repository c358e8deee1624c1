// The Windows headers in the order that they need, without the macros that rename our functions. To be
// included behind all headers of ours.
#pragma once

#ifndef _WIN32
#error "this folder is the Windows side"
#endif

#include <windows.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <string>
#include <string_view>
#include <utility>

#undef CreateEvent
#undef GetEnvironment
#undef GetFileAttributes

namespace fodr::platform {

// A kernel handle with one owner.
class OwnedHandle {
public:
    OwnedHandle() = default;
    // Both of the system's ways to say "none" are taken for it.
    explicit OwnedHandle(HANDLE handle) : value(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    OwnedHandle(OwnedHandle &&other) noexcept : value(std::exchange(other.value, nullptr)) {}
    OwnedHandle &operator=(OwnedHandle &&other) noexcept
    {
        Reset(std::exchange(other.value, nullptr));
        return *this;
    }
    ~OwnedHandle() { Reset(); }

    HANDLE Get() const { return value; }
    explicit operator bool() const { return value != nullptr; }
    void Reset(HANDLE handle = nullptr)
    {
        if (value && value != handle)
            CloseHandle(value);
        value = handle;
    }
    HANDLE Release() { return std::exchange(value, nullptr); }

private:
    HANDLE value = nullptr;
};

// Text on its way to and from Windows, whose wide characters are UTF-16 units.
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

// A thread on which the system asks nobody for a disk: a look at an empty card reader fails, where the box
// that the system shows otherwise would wait for the user. The host's process has a mode of its own, which
// isn't ours to change.
class QuietThread {
public:
    QuietThread() { SetThreadErrorMode(GetThreadErrorMode() | SEM_FAILCRITICALERRORS, &previous); }
    ~QuietThread() { SetThreadErrorMode(previous, nullptr); }
    QuietThread(const QuietThread &) = delete;
    QuietThread &operator=(const QuietThread &) = delete;

private:
    DWORD previous = 0;
};

} // namespace fodr::platform
