#include "rdpdr/ClientPolicy.h"

#include "rdpdr/wire/RdpdrConstants.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <utility>

namespace fodr {

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
