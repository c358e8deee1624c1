#include "platform/DebugOutput.h"

#include "platform/windows/Win32.h"

#include <cstdio>

namespace fodr::platform {

void DebugOutput(const char *text)
{
    OutputDebugStringA(text);
}

void WriteStandardError(const char *text, size_t length)
{
    const DWORD savedError = GetLastError();
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(length), &written, nullptr);
    SetLastError(savedError);
}

void WriteStandardOutput(const char *text)
{
    fputs(text, stdout);
    fflush(stdout);
}

} // namespace fodr::platform
