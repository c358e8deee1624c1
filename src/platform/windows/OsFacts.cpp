#include "platform/Process.h"
#include "platform/windows/Win32.h"

#include <cstdio>
#include <vector>

namespace fodr::platform {

namespace {

// The first language and code page of a version block.
struct Translation {
    WORD language;
    WORD codePage;
};

} // namespace

std::string OsVersionValue(const std::string &)
{
    return {};
}

// The suite of a single remote user is what a system without the services has.
bool HasRemoteDesktopServices()
{
    OSVERSIONINFOEXA wanted{};
    wanted.dwOSVersionInfoSize = sizeof(wanted);
    wanted.wSuiteMask = VER_SUITE_SINGLEUSERTS;
    return !VerifyVersionInfoA(&wanted, VER_SUITENAME, VerSetConditionMask(0, VER_SUITENAME, VER_OR));
}

bool FileProductVersion(const std::string &path, std::string &version)
{
    std::wstring wide;
    DWORD ignored = 0;
    version.clear();
    if (!Widen(path, wide))
        return false;
    const DWORD size = GetFileVersionInfoSizeW(wide.c_str(), &ignored);
    std::vector<std::byte> block(size);
    if (size == 0 || !GetFileVersionInfoW(wide.c_str(), 0, size, block.data()))
        return false;
    void *found = nullptr;
    UINT length = 0;
    if (!VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", &found, &length) ||
        length < sizeof(Translation))
        return true;
    const auto *translation = static_cast<const Translation *>(found);
    wchar_t name[64];
    std::swprintf(name, sizeof(name) / sizeof(name[0]), L"\\StringFileInfo\\%04x%04x\\ProductVersion",
                  static_cast<unsigned>(translation->language), static_cast<unsigned>(translation->codePage));
    if (VerQueryValueW(block.data(), name, &found, &length) && length != 0)
        version = Narrow(static_cast<const wchar_t *>(found));
    return true;
}

} // namespace fodr::platform
