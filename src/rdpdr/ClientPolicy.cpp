#include "rdpdr/ClientPolicy.h"

#include "lib/unicode/CaseFolding.h"
#include "platform/Volumes.h"
#include "rdpdr/wire/RdpdrConstants.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

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

namespace {

constexpr size_t kEntryHeaderLength = 8;

} // namespace

bool ClientPolicy::ParsePolicy(const uint8_t *data, size_t available, uint32_t length, int32_t version)
{
    FODR_TRACE_FUNCTION();
    LOG_TRACE("Fodr version is V%d. Parse the POLICY.", version);
    if (length < kHeaderLength) {
        LOG_ERROR("Policy data is too small!");
        return false;
    }
    PolicyCursor cursor(data, std::min<size_t>(length, available));
    ParseHeader(cursor);
    ParseFolderPolicy(version, length - static_cast<uint32_t>(kHeaderLength), cursor);
    ParseFilterPolicy(version, cursor);
    parsed = true;
    return true;
}

void ClientPolicy::ParseFolderPolicy(int32_t version, uint32_t folderLength, PolicyCursor &cursor)
{
    FODR_TRACE_FUNCTION();
    if (version == FODR_VERSION_UNKNOWN) {
        LOG_WARN("Server version unknown. Skip.\n");
        return;
    }
    OVMutexLock held(lock);
    if (!folders.empty()) {
        LOG_WARN("Policy already existed, overwriten it!");
        folders.clear();
    }
    if (version >= FODR_VERSION_FOLDER_BLOCK_LENGTH)
        folderLength = cursor.ReadNumber();
    LOG_TRACE("Shared folder Len: %lu", static_cast<unsigned long>(folderLength));
    // Whatever the walk finds, the filter is looked for behind the stated length.
    ParseFolderEntries(cursor.Take(folderLength));
}

void ClientPolicy::ParseFolderEntries(PolicyCursor entries)
{
    FODR_TRACE_FUNCTION();
    while (entries.Left() >= kEntryHeaderLength) {
        uint32_t permission = entries.ReadByte();
        entries.Skip(3); // reserved
        uint32_t pathLength = entries.ReadNumber();
        if (permission == 0)
            permission = defaultPermission;
        MarkPermission(permission);
        if (pathLength > entries.Left()) {
            LOG_ERROR("Invalid folder length!");
            return;
        }
        const uint8_t *path = entries.Here();
        entries.Skip(pathLength);
        if (folders.size() >= kMostFolders || pathLength > kLongestPath)
            continue;
        auto folder = FodrSharedFolder::Create(path, pathLength, permission);
        if (!folder)
            continue;
        LOG_TRACE("Add: %s:%lu:%d", folder->Path(), static_cast<unsigned long>(pathLength),
                  static_cast<int>(permission));
        folders.push_back(std::move(folder));
    }
}

void ClientPolicy::ParseFilterPolicy(int32_t version, PolicyCursor &cursor)
{
    FODR_TRACE_FUNCTION();
    if (version < FODR_VERSION_FOLDER_BLOCK_LENGTH)
        return;
    if (cursor.Left() < sizeof(uint32_t)) {
        LOG_ERROR("Left filter data is too small!");
        return;
    }
    uint32_t length = cursor.ReadNumber();
    LOG_TRACE("Filter Policy Len: %lu", static_cast<unsigned long>(length));
    if (length > cursor.Left()) {
        LOG_ERROR("Filter data smaller then length!");
        return;
    }
    if (length == 0) {
        LOG_TRACE("No filter data.");
        cursor.Skip(8); // meant, though the block ends here
        return;
    }
    PolicyCursor rules = cursor.Take(length);
    OVMutexLock held(lock);
    ParseSingleFilterPolicy(rules, excludeRule);
    LOG_TRACE("Exclude ID: %s", excludeRule.c_str());
    filter.ParsePolicy(excludeRule, FodrDeviceFilterPolicy::kExclude);
    ParseSingleFilterPolicy(rules, includeRule);
    LOG_TRACE("Include ID: %s", includeRule.c_str());
    filter.ParsePolicy(includeRule, FodrDeviceFilterPolicy::kInclude);
    filterPresent = filter.GetPolicyList(FodrDeviceFilterPolicy::kExclude) ||
                    filter.GetPolicyList(FodrDeviceFilterPolicy::kInclude);
}

void ClientPolicy::ParseSingleFilterPolicy(PolicyCursor &cursor, std::string &out)
{
    FODR_TRACE_FUNCTION();
    out.clear();
    if (cursor.Left() < sizeof(uint32_t)) {
        LOG_ERROR("Left filter data is too small!");
        return;
    }
    uint32_t length = cursor.ReadNumber();
    if (length == 0) {
        LOG_TRACE("No filer rule.\n");
        return;
    }
    PolicyCursor text = cursor.Take(length);
    out.assign(text.Here(), std::find(text.Here(), text.Here() + text.Left(), 0));
}

bool ClientPolicy::IsAllowedByDeviceFilter(const std::string &deviceInfo)
{
    FODR_TRACE_FUNCTION();
    if (deviceInfo.empty())
        return true;
    bool allowed;
    {
        OVMutexLock held(lock);
        allowed = filter.AllowToShareByPolicy(deviceInfo, FodrDeviceFilterPolicy::kExclude) &&
                  filter.AllowToShareByPolicy(deviceInfo, FodrDeviceFilterPolicy::kInclude);
    }
    if (!allowed)
        LOG_INFO("Folder denied by device filter. DeviceInfo:%s", deviceInfo.c_str());
    return allowed;
}

bool ClientPolicy::IsFolderInPolicy(const std::string &path)
{
    OVMutexLock held(lock);
    return std::any_of(folders.begin(), folders.end(),
                       [&path](const auto &folder) { return folder->Matches(path); });
}

std::vector<ClientPolicy::Folder> ClientPolicy::Folders()
{
    FODR_TRACE_FUNCTION();
    OVMutexLock held(lock);
    std::vector<Folder> list;
    list.reserve(folders.size());
    for (const auto &folder : folders)
        list.push_back({folder->Path(), folder->isAll, folder->folderPermission});
    return list;
}

} // namespace fodr
