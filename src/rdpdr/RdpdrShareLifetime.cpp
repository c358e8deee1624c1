// RdpdrChannelManager: how shares are announced and withdrawn, by command and as their drives come and go.
#include "drives/FodrDeviceUtils.h"
#include "lib/unicode/CaseFolding.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/RedirectionSettings.h"
#include "rdpdr/ShareNames.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <cwctype>

namespace fodr {

namespace {

constexpr size_t kDosNameLength = 7;      // bytes, the zero not counted
constexpr size_t kDeviceDataLength = 249; // likewise

const char *NameOf(const RCPtr<IRedirectedDevice> &device)
{
    return device->GetFriendlyName().c_str();
}

} // namespace

void RdpdrChannelManager::StartDriveWatcher(bool firstShare)
{
    FODR_TRACE_FUNCTION();
    OVMutexLock held(watcherLock);
    if (!driveWatcher) {
        LOG_ERROR("Driver watcher not initialized\n");
        return;
    }
    // A share that is gone again by now doesn't need it any more.
    if (firstShare && ShareCount() != 0 && !driveWatcher->Start(this))
        LOG_ERROR("Failed to start drive watcher\n");
}

void RdpdrChannelManager::StopDriveWatcherIfUnused()
{
    FODR_TRACE_FUNCTION();
    OVMutexLock held(watcherLock);
    if (!driveWatcher)
        LOG_ERROR("Driver watcher not initialized\n");
    else if (ShareCount() == 0 && !driveWatcher->Stop())
        LOG_ERROR("Failed to stop drive watcher\n");
}

size_t RdpdrChannelManager::ShareCount()
{
    OVMutexLock held(deviceTableLock);
    return devices.size();
}

void RdpdrChannelManager::AnnounceShare(const IRedirectedDevice &device, bool exists,
                                        const std::string &cookie)
{
    FODR_TRACE_FUNCTION();
    int deviceId = static_cast<int>(device.GetDeviceId());
    const char *friendlyName = device.GetFriendlyName().c_str();
    if (!exists) {
        LOG_INFO("Not sending drive added message because drive is not available: name = %s, friendly name = "
                 "%s, ID = %d.\n",
                 device.GetName().c_str(), friendlyName, deviceId);
        return;
    }
    LOG_INFO("Sending drive added message: name = %s, friendly name = %s, ID = %d.\n",
             device.GetName().c_str(), friendlyName, deviceId);
    if (SendSimpleDevice(device.GetDeviceId(), RDPDR_DTYP_FILESYSTEM, device.GetFriendlyName()) == 0)
        Notify(cookie.c_str(), "FOLDER_REDIRECTION_CMD_STATUS,Fails to communicate with agent");
}

int RdpdrChannelManager::SendSimpleDevice(uint32_t deviceId, uint32_t deviceType,
                                          const std::string &friendlyName)
{
    FODR_TRACE_FUNCTION();
    DEVICE_ANNOUNCE announce;
    announce.DeviceType = deviceType;
    announce.DeviceId = deviceId;
    if (ClientPolicy *agentPolicy = policy)
        announce.DeviceId |= agentPolicy->GetDevicePermission(deviceId) << kDevicePermissionShift;
    // Both cuts are by bytes and may part a character.
    memcpy(announce.PreferredDosName.data(), friendlyName.data(),
           std::min(friendlyName.size(), kDosNameLength));
    const std::string deviceData = friendlyName.substr(0, kDeviceDataLength);
    announce.DeviceDataLength = static_cast<uint32_t>(deviceData.size() + 1);
    if (IsLogEnabled(LOG_LEVEL_TRACE))
        LogWriteHex("RdpdrChannelManager::SendSimpleDevice()", LOG_LEVEL_TRACE, deviceData.c_str(),
                    announce.DeviceDataLength);

    RdpdrStreamPtr stream;
    {
        // The extension is measured and written of one and the same share.
        OVMutexLock held(deviceTableLock);
        size_t extension = GetDeviceListAnnounceExtLength(deviceId);
        stream.reset(RdpdrStream::Create(kWireEnd<DEVICE_ANNOUNCE> + announce.DeviceDataLength + extension));
        if (!stream)
            return 0;
        WriteRecord(*stream, DR_CORE_DEVICELIST_ANNOUNCE_REQ::kHeader);
        WriteRecord(*stream, DR_CORE_DEVICELIST_ANNOUNCE_REQ{});
        WriteRecord(*stream, announce);
        stream->Write(deviceData.c_str(), announce.DeviceDataLength);
        if (extension != 0)
            AppendDeviceListExt(stream.get(), deviceId);
    }
    Write(stream.get());
    return 1;
}

uint32_t RdpdrChannelManager::GetDeviceListAnnounceExtLength(uint32_t deviceId)
{
    FODR_TRACE_FUNCTION();
    size_t length = 0;
    Device device = FindDevice(deviceId);
    if (device && !driveLetterMappingDisabled)
        length = kWireSize<FODR_DRIVE_LETTER_MAPPING> + device->GetSharePath().size() + 1;
    LOG_TRACE("DeviceListAnnounce extsion data length = %ld\n", static_cast<long>(length));
    return static_cast<uint32_t>(length);
}

void RdpdrChannelManager::AppendDeviceListExt(RdpdrStream *stream, uint32_t deviceId)
{
    FODR_TRACE_FUNCTION();
    Device device = FindDevice(deviceId);
    if (!device || driveLetterMappingDisabled)
        return;
    const std::string &sharePath = device->GetSharePath();
    FODR_DRIVE_LETTER_MAPPING mapping;
    mapping.Length = static_cast<uint32_t>(sharePath.size() + 1);
    WriteRecord(*stream, mapping);
    stream->Write(sharePath.c_str(), mapping.Length);
    LOG_TRACE("Drive letter mapping extsion appended to device list announce packet, extLength = %ld.\n",
              static_cast<long>(kWireSize<FODR_DRIVE_LETTER_MAPPING> + mapping.Length));
}

void RdpdrChannelManager::SendDeviceRemove(uint32_t deviceId)
{
    FODR_TRACE_FUNCTION();
    std::array<uint8_t, kWireEnd<DR_DEVICELIST_REMOVE>> bytes;
    StorePacket(DR_DEVICELIST_REMOVE{.DeviceId = deviceId}, bytes.data());
    RdpdrStream packet(bytes.data(), bytes.size());
    Write(&packet);
}

bool RdpdrChannelManager::RemoveSharedFolder(const std::string &path, const std::string &shareName,
                                             const std::string &)
{
    FODR_TRACE_FUNCTION();
    if (path.empty()) {
        LOG_ERROR("Empty folder name to be shared.\n");
        return false;
    }
    std::string ntPath = ToNtPath(path);
    const std::vector<Device> named = SharesToRemove(ntPath, shareName);
    std::map<uint32_t, Device> removed;
    {
        OVMutexLock held(deviceTableLock);
        for (auto entry = devices.begin(); entry != devices.end();) {
            const Device &device = entry->second;
            auto next = std::next(entry);
            if (std::find(named.begin(), named.end(), device) != named.end()) {
                LOG_INFO("folderPath=%s, shareName=%s will be removed.\n", path.c_str(), shareName.c_str());
                removed.insert(devices.extract(entry));
            } else {
                LOG_DEBUG("Folder = %s, frendlyName = %s can not be removed.\n", device->GetPath().c_str(),
                          NameOf(device));
            }
            entry = next;
        }
    }
    StopDriveWatcherIfUnused();
    for (const auto &[id, device] : removed) {
        const bool announced = device->IsAvailable();
        if (!announced) {
            LOG_INFO("No need to send drive removed message: friendly name = %s, ID = %d.\n", NameOf(device),
                     static_cast<int>(id));
        } else {
            LOG_INFO("Sending device removed message: friendly name = %s, ID = %d.\n", NameOf(device),
                     static_cast<int>(id));
        }
        device->Retire();
        if (announced)
            SendDeviceRemove(id);
    }
    return !removed.empty();
}

std::vector<RdpdrChannelManager::Device> RdpdrChannelManager::SharesToRemove(const std::string &ntPath,
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

bool RdpdrChannelManager::MatchesRemoval(const IRedirectedDevice &device, const std::string &ntPath,
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

std::vector<RdpdrChannelManager::Device> RdpdrChannelManager::DevicesOfDrive(char driveLetter)
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

bool RdpdrChannelManager::OnDeviceAvailable(char driveLetter)
{
    FODR_TRACE_FUNCTION();
    LOG_DEBUG("Device with driver letter %c is available now.\n", driveLetter);
    ClientPolicy *agentPolicy = policy;
    if (agentPolicy && agentPolicy->HasDeviceFilter()) {
        std::string deviceInfo = FodrDeviceUtils::GetDeviceInfo(std::string(1, driveLetter) + ":");
        if (!agentPolicy->IsAllowedByDeviceFilter(deviceInfo)) {
            LOG_TRACE("Drive %c is denied by device filter policy.", driveLetter);
            return true;
        }
    }
    std::vector<Device> arrived = DevicesOfDrive(driveLetter);
    if (arrived.empty())
        return true;
    LocalFolderLimit limit;
    for (const Device &device : arrived) {
        int id = static_cast<int>(device->GetDeviceId());
        if (device->IsAvailable()) {
            LOG_INFO("Drive added message was already sent: friendly name = %s, ID = %d\n", NameOf(device),
                     id);
            continue;
        }
        // A list holds nothing but what was allowed when it was made.
        if (!NeedsAccessControl(device->GetFriendlyName()) && !limit.Allows(device->GetSharePath()))
            continue;
        if (SendSimpleDevice(device->GetDeviceId(), RDPDR_DTYP_FILESYSTEM, device->GetFriendlyName()) == 1) {
            LOG_INFO("Sent drive added message successfully: friendly name = %s, ID = %d\n", NameOf(device),
                     id);
            device->SetAvailable(true);
        } else {
            LOG_INFO("Failed to send drive added message: friendly name = %s, ID = %d\n", NameOf(device), id);
        }
    }
    return true;
}

bool RdpdrChannelManager::OnDeviceUnavailable(char driveLetter)
{
    FODR_TRACE_FUNCTION();
    LOG_DEBUG("Device with driver letter %c is unavailable now.\n", driveLetter);
    for (const Device &device : DevicesOfDrive(driveLetter)) {
        int id = static_cast<int>(device->GetDeviceId());
        if (!device->IsAvailable()) {
            LOG_INFO("Drive removed message was already sent: friendly name = %s, ID = %d\n", NameOf(device),
                     id);
            continue;
        }
        device->CloseAllFiles();
        SendDeviceRemove(device->GetDeviceId());
        LOG_INFO("Sent drive removed message successfully: friendly name = %s, ID = %d\n", NameOf(device),
                 id);
        device->SetAvailable(false);
    }
    return true;
}

} // namespace fodr
