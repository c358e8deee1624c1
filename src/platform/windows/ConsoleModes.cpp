#include "platform/windows/ConsoleModes.h"

#include "lib/misc/Mutex.h"

#include <cstdlib>

namespace fodr::platform {

namespace {

struct Found {
    Mutex lock;
    UINT codePage GUARDED_BY(lock) = 0; // 0: as it was
    HANDLE output GUARDED_BY(lock) = nullptr;
    DWORD mode GUARDED_BY(lock) = 0;
};

// Never destroyed: a thread may end the program while its statics go.
Found &FoundModes()
{
    static auto *found = [] {
        std::atexit(PutConsoleBack);
        return new Found;
    }();
    return *found;
}

} // namespace

void PrintUtf8()
{
    Found &found = FoundModes();
    const MutexLock held(found.lock);
    const UINT current = GetConsoleOutputCP(); // 0 without a console
    if (current != CP_UTF8 && SetConsoleOutputCP(CP_UTF8))
        found.codePage = current;
}

bool ObeysEscapes(HANDLE output)
{
    Found &found = FoundModes();
    const MutexLock held(found.lock);
    DWORD mode = 0;
    if (!GetConsoleMode(output, &mode))
        return false;
    const DWORD wanted = mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING;
    if (mode == wanted)
        return true;
    if (!SetConsoleMode(output, wanted))
        return false;
    found.output = output;
    found.mode = mode;
    return true;
}

void PutConsoleBack()
{
    Found &found = FoundModes();
    const MutexLock held(found.lock);
    if (found.codePage != 0)
        SetConsoleOutputCP(found.codePage);
    if (found.output)
        SetConsoleMode(found.output, found.mode);
    found.codePage = 0;
    found.output = nullptr;
}

} // namespace fodr::platform
