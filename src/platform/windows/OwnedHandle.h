// A kernel handle with one owner.
#pragma once

#include "platform/windows/Win32.h"

#include <utility>

namespace fodr::platform {

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

} // namespace fodr::platform
