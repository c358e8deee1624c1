#include "agent/fuse/ErrorLines.h"

#include <fcntl.h>
#include <unistd.h>

#include <sys/mman.h>

namespace fodr::agent {

ErrorLines::ErrorLines()
    : original(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)), memory(memfd_create("fodr-errors", MFD_CLOEXEC))
{
    if (!original || !memory || dup2(memory.Get(), STDERR_FILENO) < 0)
        original.Reset(-1);
}

std::string ErrorLines::Take()
{
    if (!original)
        return {};
    dup2(original.Get(), STDERR_FILENO);
    original.Reset(-1);
    std::string text;
    char part[512];
    for (ssize_t got = 0;
         (got = pread(memory.Get(), part, sizeof(part), static_cast<off_t>(text.size()))) > 0;)
        text.append(part, static_cast<size_t>(got));
    if (!text.empty() && write(STDERR_FILENO, text.data(), text.size()) < 0)
        return {};
    while (text.ends_with('\n'))
        text.pop_back();
    text.erase(0, text.rfind('\n') + 1);
    const size_t name = text.find(": ");
    return name == std::string::npos ? text : text.substr(name + 2);
}

} // namespace fodr::agent
