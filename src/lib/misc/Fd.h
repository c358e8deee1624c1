// Owner of a POSIX file descriptor. Move-only.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace fodr {

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
    void Reset(int descriptor = -1)
    {
        const int old = std::exchange(fd, descriptor);
        if (old < 0 || old == descriptor)
            return;
        const int saved = errno;
        close(old);
        errno = saved;
    }
    int Release() { return std::exchange(fd, -1); }

private:
    int fd = -1;
};

} // namespace fodr
