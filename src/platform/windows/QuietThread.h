// A thread on which the system asks nobody for a disk: a look at an empty card reader fails, where the box
// that the system shows otherwise would wait for the user. The host's process has a mode of its own, which
// isn't ours to change.
#pragma once

#include "platform/windows/Win32.h"

namespace fodr::platform {

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
