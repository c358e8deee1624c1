// Owner of a file descriptor. Move-only.
#pragma once

#include <unistd.h>

#include <utility>

namespace fodr::ntposix {

class Fd {
public:
    Fd() = default;
    explicit Fd(int descriptor) : fd(descriptor) {}
    ~Fd() { Reset(); }
    Fd(Fd &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Fd &operator=(Fd &&other) noexcept
    {
        Reset(std::exchange(other.fd, -1));
        return *this;
    }

    int Get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }
    // Closes what is held. The errno of the caller survives.
    void Reset(int descriptor = -1);
    int Release() { return std::exchange(fd, -1); }

private:
    int fd = -1;
};

} // namespace fodr::ntposix
