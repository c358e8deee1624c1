#include "drives/FodrDeviceUtils.h"

#include "lib/unicode/CodeSet.h"
#include "platform/SystemError.h"
#include "platform/Volumes.h"
#include "runtime/LogCall.h"
#include "runtime/OVMutex.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <string_view>

namespace fodr {

namespace {

constexpr std::string_view kVendor = "VID_";
constexpr std::string_view kProduct = "&PID_";
constexpr size_t kIdLength = 4;

struct VidPid {
    std::string vid;
    std::string pid;
};

// Entries stay for the life of the process.
struct VidPidCache {
    OVMutex vidPidCacheLock;
    std::map<std::u16string, VidPid> vidPidCache GUARDED_BY(vidPidCacheLock);
};

VidPidCache &Cache()
{
    static VidPidCache cache;
    return cache;
}

// For a log line.
std::string Utf8(const std::u16string &text)
{
    std::string narrow;
    if (!Utf16ToUtf8(text, narrow))
        return "?";
    return narrow;
}

bool FindInCache(const std::u16string &volumeName, std::string &vid, std::string &pid)
{
    VidPidCache &cache = Cache();
    OVMutexLock guard(cache.vidPidCacheLock);
    const auto found = cache.vidPidCache.find(volumeName);
    if (found == cache.vidPidCache.end())
        return false;
    vid = found->second.vid;
    pid = found->second.pid;
    return true;
}

bool IsIdBehind(std::string_view text, std::string_view mark)
{
    if (!text.starts_with(mark) || text.size() < mark.size() + kIdLength)
        return false;
    const std::string_view id = text.substr(mark.size(), kIdLength);
    return std::all_of(id.begin(), id.end(),
                       [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

bool OpenTarget(platform::StorageDevice &device, const std::u16string &path)
{
    const uint32_t error = device.Open(path);
    if (error != platform::kErrorSuccess)
        LOG_ERROR("Opening target device failed with error: %d.", static_cast<int>(error));
    return error == platform::kErrorSuccess;
}

} // namespace

std::string FodrDeviceUtils::GetDeviceInfo(const std::string &folder)
{
    std::string vid;
    std::string pid;
    if (!GetFolderVidpidInfo(folder, vid, pid))
        return {};
    std::string info = "<vidpid>" + vid + pid;
    LOG_TRACE("Device info of folder %s is %s", folder.c_str(), info.c_str());
    return info;
}

bool FodrDeviceUtils::GetFolderVidpidInfo(const std::string &folder, std::string &vid, std::string &pid)
{
    std::u16string wide;
    std::u16string mountPoint;
    if (!Utf8ToUtf16(folder, wide) ||
        platform::MountPointOfPath(wide, mountPoint) != platform::kErrorSuccess) {
        LOG_TRACE("Failed to get mount point for folder %s", folder.c_str());
        return false;
    }
    std::u16string volumeName;
    if (!GetVolumeUniqueName(mountPoint, volumeName)) {
        LOG_TRACE("Failed to get volume unique name for mount point %s", Utf8(mountPoint).c_str());
        return false;
    }
    if (FindInCache(volumeName, vid, pid)) {
        LOG_TRACE("Get vid/pid <%s, %s> from cache.", vid.c_str(), pid.c_str());
        return true;
    }
    if (!IsUsbDevice(volumeName)) {
        LOG_TRACE("Mount point %s is not in a removable device", Utf8(mountPoint).c_str());
        return false;
    }
    platform::StorageDeviceNumber number{};
    if (!GetStorageDeviceNumber(volumeName, number)) {
        LOG_TRACE("Failed to get storage device number for volume %s", Utf8(volumeName).c_str());
        return false;
    }
    uint32_t instance = 0;
    if (!GetDeviceInstance(number, instance)) {
        LOG_TRACE("Failed to get device instance.");
        return false;
    }
    std::string id;
    if (!GetDeviceInstanceId(instance, id)) {
        LOG_TRACE("Failed to get device instance id.");
        return false;
    }
    LOG_TRACE("Device Instancd Id is %s", id.c_str());
    if (!ParseDeviceInstanceId(id, vid, pid)) {
        LOG_TRACE("Failed to parse the device instance id.");
        return false;
    }
    CacheVidPidInfo(volumeName, vid, pid);
    return true;
}

bool FodrDeviceUtils::GetVolumeUniqueName(std::u16string mountPoint, std::u16string &name)
{
    const auto separator = static_cast<char16_t>(platform::LocalSeparator());
    if (mountPoint.empty() || mountPoint.back() != separator)
        mountPoint += separator;
    if (platform::VolumeNameOfMountPoint(mountPoint, name) != platform::kErrorSuccess) {
        LOG_TRACE("Failed to get GUID path for volume: %s\n", Utf8(mountPoint).c_str());
        return false;
    }
    if (!name.empty() && name.back() == separator)
        name.pop_back(); // so that it can be opened as a device
    return true;
}

bool FodrDeviceUtils::IsUsbDevice(const std::u16string &volumeName)
{
    platform::StorageDevice device;
    if (!OpenTarget(device, volumeName))
        return false;
    uint32_t busType = platform::kBusTypeUnknown;
    if (device.QueryBusType(busType) != platform::kErrorSuccess) {
        LOG_ERROR("Failed to define bus type for: %s.", Utf8(volumeName).c_str());
        return false;
    }
    return busType == platform::kBusTypeUsb;
}

bool FodrDeviceUtils::GetStorageDeviceNumber(const std::u16string &devicePath,
                                             platform::StorageDeviceNumber &number)
{
    platform::StorageDevice device;
    if (!OpenTarget(device, devicePath))
        return false;
    const uint32_t error = device.QueryNumber(number);
    if (error != platform::kErrorSuccess)
        LOG_ERROR("Filed to send IOCTL_STORAGE_GET_DEVICE_NUMBER, error: %d.", static_cast<int>(error));
    return error == platform::kErrorSuccess;
}

bool FodrDeviceUtils::GetDeviceInstance(const platform::StorageDeviceNumber &number, uint32_t &instance)
{
    if (number.DeviceType != platform::kDeviceTypeDisk && number.DeviceType != platform::kDeviceTypeCdRom)
        return false;
    platform::StorageDeviceList list;
    uint32_t error = list.Open(number.DeviceType);
    if (error != platform::kErrorSuccess) {
        LOG_ERROR("GetDevInfoList failed with error %d", static_cast<int>(error));
        return false;
    }
    for (uint32_t index = 0; list.HasEntry(index); ++index) {
        uint32_t size = 0;
        error = list.QueryDetailSize(index, size);
        if (error != platform::kErrorInsufficientBuffer) {
            LOG_ERROR("GetDevIntfDetail(%d)1 failed. error %d", static_cast<int>(index),
                      static_cast<int>(error));
            return false;
        }
        std::u16string path;
        uint32_t candidate = 0;
        error = list.QueryDetail(index, size, path, candidate);
        if (error != platform::kErrorSuccess) {
            LOG_ERROR("GetDevIntfDetail(%d) failed. error %d", static_cast<int>(index),
                      static_cast<int>(error));
            return false;
        }
        // Only the number counts, neither its type nor the partition.
        platform::StorageDeviceNumber found{};
        if (GetStorageDeviceNumber(path, found) && found.DeviceNumber == number.DeviceNumber) {
            LOG_TRACE("Found matched device: %s", Utf8(path).c_str());
            instance = candidate;
            return true;
        }
    }
    return false;
}

bool FodrDeviceUtils::GetDeviceInstanceId(uint32_t instance, std::string &id)
{
    uint32_t parent = 0;
    if (!platform::ParentOfDeviceInstance(instance, parent)) {
        LOG_ERROR("Failed to get parent instance.");
        return false;
    }
    if (!platform::IdOfDeviceInstance(parent, id)) {
        LOG_ERROR("Failed to get the instanceId.");
        return false;
    }
    return true;
}

bool FodrDeviceUtils::ParseDeviceInstanceId(const std::string &id, std::string &vid, std::string &pid)
{
    LOG_DEBUG("Parsing device instanceId: %s", id.c_str());
    const std::string_view text = id;
    const size_t productAt = kVendor.size() + kIdLength;
    size_t at = text.find(kVendor);
    while (at != std::string_view::npos &&
           (!IsIdBehind(text.substr(at), kVendor) || !IsIdBehind(text.substr(at + productAt), kProduct)))
        at = text.find(kVendor, at + 1);
    if (at == std::string_view::npos)
        return false;
    vid = text.substr(at + kVendor.size(), kIdLength);
    pid = text.substr(at + productAt + kProduct.size(), kIdLength);
    LOG_DEBUG("Rechieved vid = %s, pid = %s", vid.c_str(), pid.c_str());
    return true;
}

void FodrDeviceUtils::CacheVidPidInfo(const std::u16string &volumeName, const std::string &vid,
                                      const std::string &pid)
{
    VidPidCache &cache = Cache();
    {
        OVMutexLock guard(cache.vidPidCacheLock);
        cache.vidPidCache[volumeName] = {vid, pid};
    }
    LOG_TRACE("Insert <%s, %s/%s> to cache.", Utf8(volumeName).c_str(), vid.c_str(), pid.c_str());
}

namespace {

// As many links as file systems follow in a row; without an end a loop would be followed forever.
constexpr int kMostLinks = 40;

size_t LastSeparator(std::u16string_view path)
{
    size_t at = path.size();
    while (at > 0 && !(path[at - 1] < 0x80 && platform::IsLocalSeparator(static_cast<char>(path[at - 1]))))
        --at;
    return at;
}

// Separators at the end don't count: of "a/b/" the parent is "a". A root's own separator stays.
std::u16string ParentOf(std::u16string_view path)
{
    size_t end = path.size();
    while (end > 0 && LastSeparator(path.substr(0, end)) == end)
        --end;
    return std::u16string(path.substr(0, LastSeparator(path.substr(0, end))));
}

std::u16string Join(std::u16string folder, const std::u16string &target)
{
    if (!folder.empty() && LastSeparator(folder) != folder.size())
        folder += static_cast<char16_t>(platform::LocalSeparator());
    return folder + target;
}

} // namespace

std::string FodrClientUtils::GetLinkPath(const std::string &path)
{
    std::u16string current;
    platform::LinkKind kind = platform::LinkKind::Missing;
    if (!Utf8ToUtf16(path, current) || platform::QueryLinkKind(current, kind) != platform::kErrorSuccess ||
        kind != platform::LinkKind::SymbolicLink)
        return path;
    for (int followed = 0; followed < kMostLinks && kind == platform::LinkKind::SymbolicLink; ++followed) {
        std::u16string target;
        if (platform::ReadLinkTarget(current, target) != platform::kErrorSuccess || target.empty())
            break;
        current = platform::IsAbsoluteLocalPath(target) ? target : Join(ParentOf(current), target);
        platform::QueryLinkKind(current, kind);
    }
    std::string result;
    if (!Utf16ToUtf8(current, result) || result.empty())
        return path;
    LOG_TRACE("Link path of %s is %s", path.c_str(), result.c_str());
    return result;
}

} // namespace fodr
