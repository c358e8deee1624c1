#include "rdpdr/FodrPolicy.h"

#include "lib/unicode/CaseFolding.h"
#include "platform/Volumes.h"
#include "runtime/LogCall.h"

#include <cstring>
#include <new>

namespace fodr {

namespace {

bool IsAsciiLetter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

} // namespace

std::unique_ptr<FodrSharedFolder> FodrSharedFolder::Create(const uint8_t *path, uint32_t length,
                                                           uint32_t permission)
{
    std::unique_ptr<FodrSharedFolder> folder(new (std::nothrow) FodrSharedFolder);
    if (!folder)
        return nullptr;
    folder->folderPath = MallocBuffer::AllocateZeroed(size_t{length} + 2);
    if (!folder->folderPath)
        return nullptr;
    if (length > 0)
        memcpy(folder->folderPath.Data(), path, length);
    const char *text = folder->Path();
    folder->folderPathLength = length;
    folder->isDriveLetter = IsAsciiLetter(text[0]) && (length == 1 || (length == 2 && text[1] == ':'));
    folder->isAll = strcmp(text, "*all") == 0;
    folder->folderPermission = permission;
    return folder;
}

bool FodrSharedFolder::Matches(const std::string &path) const
{
    if (isAll)
        return true;
    const char *entry = Path();
    // The letter alone is compared with case.
    if (isDriveLetter && !path.empty() && path[0] == entry[0] && (path.size() == 1 || path[1] == ':'))
        return true;
    size_t length = folderPathLength;
    if (length > 0 && platform::IsLocalSeparator(entry[length - 1]))
        --length;
    return path.size() >= length && AsciiCompareNoCase(path.c_str(), entry, length) == 0 &&
           (path.size() == length || platform::IsLocalSeparator(path[length]));
}

bool FodrPolicy::ParsePolicy(const uint8_t *data, size_t length)
{
    if (length < kHeaderLength) {
        LOG_ERROR("Policy data is too small!\n");
        return false;
    }
    PolicyCursor cursor(data, length);
    ParseHeader(cursor);
    parsed = true;
    return true;
}

void FodrPolicy::ParseHeader(PolicyCursor &cursor)
{
    enabled = cursor.ReadByte() != 0;
    sharedByAgent = cursor.ReadByte() != 0;
    uint32_t permission = cursor.ReadByte();
    defaultPermission = permission;
    MarkPermission(permission);
    cursor.Skip(5); // reserved
}

void FodrPolicy::MarkPermission(uint32_t permission)
{
    if (permission == 1 || permission == 2)
        readOnlyMark = true;
    else if (permission == 3 || permission == 4)
        secondMark = true;
}

bool FodrPolicy::IsAllowedByDeviceFilter(const std::string &)
{
    return false;
}

bool FodrPolicy::IsFolderInPolicy(const std::string &)
{
    return false;
}

bool FodrPolicy::HasDeviceFilter()
{
    return false;
}

bool FodrPolicy::SetDevicePermission(uint32_t deviceId, uint32_t permission)
{
    if (!parsed)
        return false;
    OVMutexLock held(lock);
    devicePermissions[deviceId] = permission;
    if (devicePermissions.size() > kMostPermissions)
        devicePermissions.erase(devicePermissions.begin()); // of the oldest share
    return true;
}

uint32_t FodrPolicy::GetDevicePermission(uint32_t deviceId)
{
    if (!parsed)
        return 0;
    OVMutexLock held(lock);
    auto found = devicePermissions.find(deviceId);
    if (found == devicePermissions.end()) {
        LOG_WARN("Cannot find Device 0x%lx in permisson map.", static_cast<unsigned long>(deviceId));
        return 0;
    }
    return found->second;
}

} // namespace fodr
