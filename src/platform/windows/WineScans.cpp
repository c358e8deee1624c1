#include "platform/windows/WineScans.h"

#include "lib/misc/Mutex.h"
#include "platform/windows/Win32.h"

#include <winternl.h>

#include <map>

namespace fodr::platform {

namespace {

struct Scans {
    Mutex lock;
    std::map<HANDLE, OwnedHandle> handles GUARDED_BY(lock); // by the folder's
};

Scans &AllScans()
{
    static auto *scans = new Scans; // files may be closed to the very end
    return *scans;
}

OwnedHandle OpenAgain(HANDLE folder)
{
    UNICODE_STRING name{};
    IO_STATUS_BLOCK ioStatus{};
    OBJECT_ATTRIBUTES attributes{};
    attributes.Length = sizeof(attributes);
    attributes.RootDirectory = folder;
    attributes.ObjectName = &name;
    HANDLE opened = nullptr;
    const NTSTATUS status =
        NtCreateFile(&opened, FILE_LIST_DIRECTORY | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0,
                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                     FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    return OwnedHandle(status < 0 ? nullptr : opened);
}

} // namespace

bool IsWine()
{
    static const bool isWine = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
    return isWine;
}

HANDLE HandleForScan(HANDLE folder, bool startsAnewWithPattern)
{
    if (!IsWine())
        return folder;
    Scans &scans = AllScans();
    const MutexLock held(scans.lock);
    if (startsAnewWithPattern) {
        OwnedHandle again = OpenAgain(folder);
        if (again)
            scans.handles[folder] = std::move(again);
    }
    const auto found = scans.handles.find(folder);
    return found == scans.handles.end() ? folder : found->second.Get();
}

void ForgetScan(HANDLE folder)
{
    if (!IsWine())
        return;
    Scans &scans = AllScans();
    const MutexLock held(scans.lock);
    scans.handles.erase(folder);
}

bool IsUnknownListing(uint32_t infoClass)
{
    // Object ids, quotas and reparse points (MS-FSCC 2.4).
    return (infoClass == 29 || infoClass == 32 || infoClass == 33) && IsWine();
}

} // namespace fodr::platform
