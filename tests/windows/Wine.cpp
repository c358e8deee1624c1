#include "Wine.h"

#include "platform/windows/Win32.h"

namespace fodr::test {

bool RunsOnWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

} // namespace fodr::test
