#include "rdpdr/ShareTable.h"

#include "fileservice/AllowListFileSystem.h"
#include "fileservice/RedirectedDeviceAccessControl.h"
#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"
#include "rdpdr/ClientPolicy.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <new>
#include <unordered_set>
#include <utility>

namespace fodr {

namespace {

constexpr const char *kStatusSucceeded = "FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED";
constexpr const char *kStatusInternalError = "FOLDER_REDIRECTION_CMD_STATUS,Internal system error";
constexpr const char *kStatusNoFolder =
    "FOLDER_REDIRECTION_CMD_STATUS,Folder not exist or invalid parameter or configuration";
constexpr const char *kStatusNameChanged = "FOLDER_REDIRECTION_CMD_STATUS,Share name change to ";

constexpr size_t kDosNameLength = 7;      // bytes, the zero not counted
constexpr size_t kDeviceDataLength = 249; // likewise

bool EqualsNoCase(const std::string &a, const std::string &b)
{
    return AsciiCompareNoCase(a.c_str(), b.c_str()) == 0;
}

// Null when there is no memory. With a list the share shows only what is on it.
ShareTable::Device NewDevice(RedirectedDeviceSettings settings, std::unique_ptr<IFileSystem> fileSystem,
                             std::shared_ptr<AllowAccessList> allowList)
{
    if (allowList)
        return new (std::nothrow)
            RedirectedDeviceAccessControl(std::move(fileSystem), std::move(settings), std::move(allowList));
    return new (std::nothrow) RedirectedDevice(std::move(fileSystem), std::move(settings));
}

} // namespace

ShareTable::Device ShareTable::Find(uint32_t deviceId)
{
    auto found = devices.find(deviceId);
    return found == devices.end() ? Device() : found->second;
}

ShareTable::Device ShareTable::FindDevice(uint32_t deviceId)
{
    OVMutexLock held(deviceTableLock);
    return Find(deviceId);
}

std::optional<ShareTable::Device> ShareTable::EntryOf(uint32_t deviceId, bool take)
{
    OVMutexLock held(deviceTableLock);
    const auto found = devices.find(deviceId);
    if (found == devices.end())
        return std::nullopt;
    const Device device = found->second;
    if (take && device)
        devices.erase(found);
    return device;
}

size_t ShareTable::Count()
{
    OVMutexLock held(deviceTableLock);
    return devices.size();
}

std::map<uint32_t, ShareTable::Device> ShareTable::Close()
{
    OVMutexLock held(deviceTableLock);
    closing = true;
    return std::exchange(devices, {});
}

bool ShareTable::IsClosing()
{
    OVMutexLock held(deviceTableLock);
    return closing;
}

// ---- Adding ----

ShareTable::Look ShareTable::LookAtFolder(const Request &request)
{
    FODR_TRACE_FUNCTION();
    Look look;
    {
        OVMutexLock held(deviceTableLock);
        look.driveEvents = driveEvents;
        look.compared = SharesOfPath(request.ntPath, request.type);
    }
    auto sameText = [&](const Device &device) { return NtPathsEqual(request.ntPath, device->GetPath()); };
    auto found = std::find_if(look.compared.begin(), look.compared.end(), sameText);
    if (found != look.compared.end()) {
        look.present = *found;
        return look;
    }
    const uint32_t matching = request.namedFiles ? 0 : nt::OBJ_CASE_INSENSITIVE;
    look.exact = FolderExists(request.ntPath, 0);
    look.exists = look.exact || (matching != 0 && FolderExists(request.ntPath, matching));
    if (!look.exists)
        return look;
    // Paths that differ in case alone are one folder or two, as the disk has it: files that are named in one
    // of two must not show the other's. A share that isn't announced stands in for none but itself.
    for (const Device &device : look.compared) {
        if (device->IsAvailable() && FolderExists(device->GetPath(), matching) &&
            IsSameFolder(request.ntPath, device->GetPath())) {
            look.present = device;
            break;
        }
    }
    return look;
}

std::optional<ShareTable::Outcome> ShareTable::InsertShare(const Request &request, const Look &look,
                                                           RedirectedDeviceSettings settings,
                                                           ClientPolicy *agentPolicy)
{
    FODR_TRACE_FUNCTION();
    OVMutexLock held(deviceTableLock);
    if (look.driveEvents != driveEvents || look.compared != SharesOfPath(request.ntPath, request.type))
        return {};
    Outcome outcome;
    outcome.exists = look.exists;
    if (closing) {
        outcome.statuses.push_back(kStatusInternalError);
        return outcome;
    }
    if (look.present) {
        LOG_INFO("%s|%s already added\n", request.path.c_str(), request.shareName.c_str());
        look.present->UpdateAllowAccessFileList(request.offer.files);
        outcome.present = true;
        outcome.statuses.push_back(kStatusSucceeded);
        return outcome;
    }
    std::shared_ptr<AllowAccessList> allowList;
    if (request.namedFiles)
        allowList =
            std::make_shared<AllowAccessList>(request.ntPath, request.offer.files, !request.offer.whole);
    nt::ShareRules rules = request.rules;
    rules.exactRoot = look.exact; // a folder that is there stands for itself alone
    std::unique_ptr<IFileSystem> fileSystem =
        allowList ? AllowListFileSystem::Create(request.ntPath, allowList, rules)
                  : FileSystemImpl::Create(request.ntPath, rules);
    // Numbers that fit the wire can run out.
    if (!fileSystem || nextDeviceId > kDeviceNumberMask || devices.size() >= kMostShares) {
        outcome.statuses.push_back(kStatusInternalError);
        return outcome;
    }
    if (!look.exists && request.cookie.empty() && agentPolicy && !agentPolicy->IsSharedByAgent()) {
        outcome.statuses.push_back(kStatusNoFolder);
        return outcome;
    }
    settings.friendlyName = NameShare(request, &outcome.statuses);
    settings.available = look.exists;
    outcome.added = NewDevice(std::move(settings), std::move(fileSystem), std::move(allowList));
    if (!outcome.added) {
        outcome.statuses.push_back(kStatusInternalError);
        return outcome;
    }
    uint32_t deviceId = nextDeviceId++;
    outcome.added->SetDeviceId(deviceId);
    devices[deviceId] = outcome.added;
    outcome.first = devices.size() == 1;
    outcome.present = true;
    if (agentPolicy)
        agentPolicy->SetDevicePermission(
            deviceId, request.permission != 0 ? request.permission : agentPolicy->GetDefaultPermission());
    return outcome;
}

std::vector<ShareTable::Device> ShareTable::SharesOfPath(const std::string &ntPath, SharedType type)
{
    std::vector<Device> found;
    for (const auto &[id, device] : devices) {
        if (EqualsNoCase(ntPath, device->GetPath()) && type == GetSharedType(device->GetFriendlyName()))
            found.push_back(device);
    }
    return found;
}

std::string ShareTable::NameShare(const Request &request, std::vector<std::string> *statuses)
{
    FODR_TRACE_FUNCTION();
    if (request.type != SharedType::None)
        return request.shareName;
    std::string friendlyName = GenerateFriendlyName(request.path, request.shareName);
    if (!request.shareName.empty() && friendlyName != request.shareName) {
        LOG_INFO("Name Conflict: %s ==> %s.\n", request.shareName.c_str(), friendlyName.c_str());
        statuses->push_back(kStatusNameChanged + friendlyName);
    }
    return friendlyName;
}

std::string ShareTable::GenerateFriendlyName(const std::string &path, const std::string &shareName)
{
    FODR_TRACE_FUNCTION();
    // Names that aren't text are never equal to any.
    const auto folded = [](const std::string &name) {
        std::u16string wide;
        return Utf8ToUtf16(name, wide) ? FoldText(wide) : std::u16string();
    };
    std::unordered_set<std::u16string> taken;
    for (const auto &[id, device] : devices)
        taken.insert(folded(device->GetFriendlyName()));
    taken.erase(std::u16string());
    const std::string name = PlainFriendlyName(path, shareName);
    std::string candidate = name;
    for (int n = 1; taken.contains(folded(candidate)); ++n)
        candidate = name + "(" + std::to_string(n) + ")";
    LOG_INFO("The friendly name generated for [%s] folder is [%s].\n", path.c_str(), candidate.c_str());
    return candidate;
}

// ---- Removing ----

std::vector<ShareTable::Device> ShareTable::Remove(const std::string &path, const std::string &ntPath,
                                                   const std::string &shareName)
{
    const std::vector<Device> named = SharesToRemove(ntPath, shareName);
    std::vector<Device> removed;
    OVMutexLock held(deviceTableLock);
    std::erase_if(devices, [&](const auto &entry) {
        const Device &device = entry.second;
        if (std::find(named.begin(), named.end(), device) == named.end()) {
            LOG_DEBUG("Folder = %s, frendlyName = %s can not be removed.\n", device->GetPath().c_str(),
                      device->GetFriendlyName().c_str());
            return false;
        }
        LOG_INFO("folderPath=%s, shareName=%s will be removed.\n", path.c_str(), shareName.c_str());
        removed.push_back(device);
        return true;
    });
    return removed;
}

std::vector<ShareTable::Device> ShareTable::SharesToRemove(const std::string &ntPath,
                                                           const std::string &shareName)
{
    FODR_TRACE_FUNCTION();
    std::vector<Device> found;
    {
        OVMutexLock held(deviceTableLock);
        for (const auto &[id, device] : devices) {
            if (MatchesRemoval(*device, ntPath, shareName))
                found.push_back(device);
        }
    }
    // Where names differ by case the share of the very path goes and the others stay. Without one, a share of
    // another folder isn't meant.
    const auto isExact = [&](const Device &device) { return NtPathsEqual(device->GetPath(), ntPath); };
    const bool exact = std::any_of(found.begin(), found.end(), isExact);
    std::erase_if(found, [&](const Device &device) {
        return exact ? !isExact(device) : AreTwoFolders(device->GetPath(), ntPath);
    });
    return found;
}

bool ShareTable::MatchesRemoval(const IRedirectedDevice &device, const std::string &ntPath,
                                const std::string &shareName)
{
    FODR_TRACE_FUNCTION();
    if (device.IsDriveLetterShare())
        return false;
    SharedType deviceType = GetSharedType(device.GetFriendlyName());
    SharedType wantedType = GetSharedType(shareName);
    if (deviceType == SharedType::FolderRedirection || wantedType == SharedType::FolderRedirection)
        return false;
    if (AsciiCompareNoCase(device.GetPath().c_str(), ntPath.c_str()) != 0)
        return false;
    if (deviceType == SharedType::None && wantedType == SharedType::None)
        return true; // whatever its name
    return AsciiCompareNoCase(device.GetFriendlyName().c_str(), shareName.c_str()) == 0;
}

std::vector<ShareTable::Device> ShareTable::DevicesOfDrive(char driveLetter)
{
    FODR_TRACE_FUNCTION();
    std::vector<Device> found;
    std::wint_t letter = std::towupper(static_cast<unsigned char>(driveLetter));
    OVMutexLock held(deviceTableLock);
    ++driveEvents; // what an add has seen of its folder holds no longer
    for (const auto &[id, device] : devices) {
        if (std::towupper(device->GetDeviceType()) == letter)
            found.push_back(device);
    }
    return found;
}

// ---- Announcing ----

RdpdrStreamPtr ShareTable::BuildDeviceAnnounce(uint32_t deviceId, uint32_t deviceType, uint32_t permission,
                                               const std::string &friendlyName, bool mapped)
{
    DEVICE_ANNOUNCE announce;
    announce.DeviceType = deviceType;
    announce.DeviceId = deviceId | permission << kDevicePermissionShift;
    // Both cuts are by bytes and may part a character.
    memcpy(announce.PreferredDosName.data(), friendlyName.data(),
           std::min(friendlyName.size(), kDosNameLength));
    const std::string deviceData = friendlyName.substr(0, kDeviceDataLength);
    announce.DeviceDataLength = static_cast<uint32_t>(deviceData.size() + 1);
    if (IsLogEnabled(LOG_LEVEL_TRACE))
        LogWriteHex("RdpdrChannelManager::SendSimpleDevice()", LOG_LEVEL_TRACE, deviceData.c_str(),
                    announce.DeviceDataLength);

    // The extension is measured and written of one and the same share.
    OVMutexLock held(deviceTableLock);
    const size_t extension = GetDeviceListAnnounceExtLength(deviceId, mapped);
    RdpdrStreamPtr stream(
        RdpdrStream::Create(kWireEnd<DEVICE_ANNOUNCE> + announce.DeviceDataLength + extension));
    if (!stream)
        return nullptr;
    WriteRecord(*stream, DR_CORE_DEVICELIST_ANNOUNCE_REQ::kHeader);
    WriteRecord(*stream, DR_CORE_DEVICELIST_ANNOUNCE_REQ{});
    WriteRecord(*stream, announce);
    stream->Write(deviceData.c_str(), announce.DeviceDataLength);
    if (extension != 0)
        AppendDeviceListExt(stream.get(), deviceId, mapped);
    return stream;
}

uint32_t ShareTable::GetDeviceListAnnounceExtLength(uint32_t deviceId, bool mapped)
{
    FODR_TRACE_FUNCTION();
    size_t length = 0;
    Device device = Find(deviceId);
    if (device && mapped)
        length = kWireSize<FODR_DRIVE_LETTER_MAPPING> + device->GetSharePath().size() + 1;
    LOG_TRACE("DeviceListAnnounce extsion data length = %ld\n", static_cast<long>(length));
    return static_cast<uint32_t>(length);
}

void ShareTable::AppendDeviceListExt(RdpdrStream *stream, uint32_t deviceId, bool mapped)
{
    FODR_TRACE_FUNCTION();
    Device device = Find(deviceId);
    if (!device || !mapped)
        return;
    const std::string &sharePath = device->GetSharePath();
    FODR_DRIVE_LETTER_MAPPING mapping;
    mapping.Length = static_cast<uint32_t>(sharePath.size() + 1);
    WriteRecord(*stream, mapping);
    stream->Write(sharePath.c_str(), mapping.Length);
    LOG_TRACE("Drive letter mapping extsion appended to device list announce packet, extLength = %ld.\n",
              static_cast<long>(kWireSize<FODR_DRIVE_LETTER_MAPPING> + mapping.Length));
}

} // namespace fodr
