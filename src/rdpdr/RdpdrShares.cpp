// RdpdrChannelManager: where its shares come from, how they are announced and withdrawn, and what becomes of
// them as drives come and go.
#include "drives/FodrDeviceUtils.h"
#include "platform/Volumes.h"
#include "rdpdr/PreReadManager.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/RedirectionSettings.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <array>
#include <utility>

namespace fodr {

namespace {

constexpr const char *kStatusInvalidPath = "FOLDER_REDIRECTION_CMD_STATUS,Invalid share path";
constexpr const char *kStatusNoPolicy = "FOLDER_REDIRECTION_CMD_STATUS,Policy is not received from Agent";
constexpr const char *kStatusNoFolder =
    "FOLDER_REDIRECTION_CMD_STATUS,Folder not exist or invalid parameter or configuration";

// What drive events match on: the drive letter of "C:\data"; of other paths some character that no drive has.
uint16_t DeviceTypeOfPath(const std::string &path)
{
    return path[0] == '\\' ? u' ' : static_cast<unsigned char>(path[0]);
}

bool IsDriveRoot(const std::string &path)
{
    return (path.size() == 2 || path.size() == 3) && path[1] == ':' &&
           ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'));
}

const char *NameOf(const RCPtr<IRedirectedDevice> &device)
{
    return device->GetFriendlyName().c_str();
}

} // namespace

// ---- Adding and removing ----

bool RdpdrChannelManager::NeedsAccessControl(const std::string &shareName)
{
    SharedType type = GetSharedType(shareName);
    return type == SharedType::DragAndDrop || type == SharedType::FileCopyPaste;
}

bool RdpdrChannelManager::AddSharedFolder(const std::string &path, const std::string &cookie,
                                          bool driveLetterShare, uint32_t permission,
                                          const std::string &shareName)
{
    return AddSharedFolder(path, cookie, driveLetterShare, permission, shareName, {});
}

bool RdpdrChannelManager::AddSharedFolder(const std::string &path, const std::string &cookie,
                                          bool driveLetterShare, uint32_t permission,
                                          const std::string &shareName,
                                          const std::vector<std::string> &allowList)
{
    FODR_TRACE_FUNCTION();
    LOG_TRACE("Raw sharePath = %s, shareName = %s,", path.c_str(), shareName.c_str());
    if (path.empty()) {
        LOG_ERROR("Empty folder path to be shared.\n");
        Notify(cookie.c_str(), kStatusInvalidPath);
        return false;
    }
    if (!policy.load() && serverVersion > FODR_VERSION_NO_POLICY) {
        LOG_ERROR("Policy is not received from Agent yet.\n");
        Notify(cookie.c_str(), kStatusNoPolicy);
        return false;
    }
    SharedType type = GetSharedType(shareName);
    bool policyApplies = ShouldApplyCDRPolicy(type);
    if (policyApplies && !IsAllowedByCDRPolicy(path, permission, type)) {
        Notify(cookie.c_str(),
               "FOLDER_REDIRECTION_CMD_STATUS,Redirecting " + path + " is not allowed from Agent");
        return false;
    }
    FolderOffer offer = NeedsAccessControl(shareName) ? LocalFolderLimit().OfferOfFiles(path, allowList)
                                                      : FolderOffer{LocalFolderLimit().Allows(path), {}};
    if (!offer.whole && offer.files.empty()) {
        Notify(cookie.c_str(), kStatusNoFolder);
        return false;
    }
    const ShareTable::Request request{
        path,           cookie,           permission,      shareName, type, NeedsAccessControl(shareName),
        ToNtPath(path), std::move(offer), ReadShareRules()};
    std::optional<ShareTable::Outcome> outcome;
    while (!outcome) {
        const ShareTable::Look look = shares.LookAtFolder(request);
        outcome =
            shares.InsertShare(request, look, SettingsFor(request, driveLetterShare, policyApplies), policy);
    }
    for (const std::string &status : outcome->statuses)
        Notify(cookie.c_str(), status);
    if (outcome->added) {
        LOG_INFO("New folder shared: %s.\n", path.c_str());
        StartDriveWatcher(outcome->first);
        AnnounceShare(*outcome->added, outcome->exists, cookie);
    }
    return outcome->present;
}

// The table adds the rest.
RedirectedDeviceSettings RdpdrChannelManager::SettingsFor(const ShareTable::Request &request,
                                                          bool driveLetterShare, bool policyApplies)
{
    RedirectedDeviceSettings settings;
    settings.channel = channel;
    settings.packetTrace = packetTrace;
    settings.deviceType = DeviceTypeOfPath(request.path);
    settings.path = request.ntPath;
    settings.sharePath = request.path;
    settings.name = request.cookie;
    settings.driveLetterShare = driveLetterShare;
    settings.multiEntryDirectoryQuery = multiEntryDirectoryQuery;
    settings.readOnly = policyApplies && readOnly;
    settings.preReadEnabled = preReadEnabled;
    settings.preReader = &PreReadManager::GetInstance();
    settings.filterPolicy = policyApplies ? policy.load() : nullptr;
    return settings;
}

bool RdpdrChannelManager::ShouldApplyCDRPolicy(SharedType type)
{
    FODR_TRACE_FUNCTION();
    LOG_TRACE("Shared Type: %d.\n", static_cast<int>(type));
    if (type != SharedType::None && serverVersion >= FODR_VERSION_TYPE_TAGS) {
        LOG_TRACE("CDR policy is bypassed.\n");
        return false;
    }
    return true;
}

bool RdpdrChannelManager::IsAllowedByCDRPolicy(const std::string &path, uint32_t permission, SharedType type)
{
    FODR_TRACE_FUNCTION();
    if (serverVersion == FODR_VERSION_NO_POLICY) {
        LOG_INFO("Server is FODR V1.\n");
        return true;
    }
    ClientPolicy *agentPolicy = policy;
    if (!agentPolicy || !agentPolicy->IsEnabled()) {
        LOG_WARN("No policy or CDR disabled. Not allow.\n");
        return false;
    }
    bool allowed = true;
    if (agentPolicy->IsSharedByAgent() && permission == 0)
        allowed = agentPolicy->IsFolderInPolicy(path);
    else if (agentPolicy->HasDeviceFilter())
        allowed = agentPolicy->IsAllowedByDeviceFilter(FodrDeviceUtils::GetDeviceInfo(path));
    if (allowed && !driveLetterMappingDisabled && type == SharedType::None) {
        allowed = IsDriveRoot(path);
        LOG_INFO("Folder share %s is %sabled for drive letter mapping.\n", path.c_str(),
                 allowed ? "en" : "dis");
    }
    LOG_INFO("Folder share %s is %sallowed.\n", path.c_str(), allowed ? "" : "dis");
    return allowed;
}

bool RdpdrChannelManager::RemoveSharedFolder(const std::string &path, const std::string &shareName,
                                             const std::string &)
{
    FODR_TRACE_FUNCTION();
    if (path.empty()) {
        LOG_ERROR("Empty folder name to be shared.\n");
        return false;
    }
    const std::vector<Device> removed = shares.Remove(path, ToNtPath(path), shareName);
    StopDriveWatcherIfUnused();
    for (const Device &device : removed) {
        const uint32_t id = device->GetDeviceId();
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

// ---- Drives that come and go ----

void RdpdrChannelManager::StartDriveWatcher(bool firstShare)
{
    FODR_TRACE_FUNCTION();
    OVMutexLock held(watcherLock);
    if (!driveWatcher) {
        LOG_ERROR("Driver watcher not initialized\n");
        return;
    }
    // The share may be gone again by now.
    if (firstShare && shares.Count() != 0 && !driveWatcher->Start(this))
        LOG_ERROR("Failed to start drive watcher\n");
}

void RdpdrChannelManager::StopDriveWatcherIfUnused()
{
    FODR_TRACE_FUNCTION();
    OVMutexLock held(watcherLock);
    if (!driveWatcher)
        LOG_ERROR("Driver watcher not initialized\n");
    else if (shares.Count() == 0 && !driveWatcher->Stop())
        LOG_ERROR("Failed to stop drive watcher\n");
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
    std::vector<Device> arrived = shares.DevicesOfDrive(driveLetter);
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
    for (const Device &device : shares.DevicesOfDrive(driveLetter)) {
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

// ---- Shares from the local settings and the policy ----

void RdpdrChannelManager::RedirectAllDrives()
{
    FODR_TRACE_FUNCTION();
    {
        // A machine without the key shares every drive; one that has it must say so.
        RedirectionSettings settings;
        uint32_t redirectAll = 0;
        if (settings.IsOpen() && (!settings.ReadNumber("RedirectAll", &redirectAll) || redirectAll == 0))
            return;
    }
    AddDrives(0);
}

void RdpdrChannelManager::AddDrives(uint32_t permission)
{
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        if (platform::DriveTypeOfLetter(letter) > platform::kDriveNoRootDir)
            AddSharedFolder(std::string(1, letter) + ":\\", "", true, permission, "");
    }
}

void RdpdrChannelManager::RedirectDevicesFromRegKey()
{
    FODR_TRACE_FUNCTION();
    RedirectionSettings settings;
    if (!settings.IsOpen()) {
        LOG_WARN("Failed to open reg key.\n");
        return;
    }
    std::vector<std::string> folders;
    switch (settings.ReadList("SharedFolders", &folders)) {
    case RedirectionSettings::ListResult::Missing:
    case RedirectionSettings::ListResult::SizeFailed:
        LOG_WARN("Failed to query reg key size.\n");
        break;
    case RedirectionSettings::ListResult::DataFailed:
        LOG_WARN("Failed to query reg key data.\n");
        break;
    case RedirectionSettings::ListResult::Empty:
        LOG_WARN("Empty Regkey string.\n");
        break;
    case RedirectionSettings::ListResult::Read:
        break;
    }
    for (const std::string &folder : folders) {
        LOG_INFO("Adding %s folder.\n", folder.c_str());
        AddSharedFolder(folder, "", true, 0, "");
    }
}

void RdpdrChannelManager::AddPolicyFolders()
{
    FODR_TRACE_FUNCTION();
    // A copy of the list: an add takes the table's lock, which comes before the policy's. The list doesn't
    // change meanwhile, since that takes stateLock.
    for (const ClientPolicy::Folder &folder : policy.load()->Folders()) {
        if (shares.Count() >= kMostForPolicy) {
            LOG_WARN("Too many shares for the folders of the policy.\n");
            return;
        }
        if (folder.isAll)
            AddDrives(folder.permission);
        else
            AddSharedFolder(folder.path, "", true, folder.permission, "");
    }
}

// ---- Announcing ----

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
    ClientPolicy *agentPolicy = policy;
    const uint32_t permission = agentPolicy ? agentPolicy->GetDevicePermission(deviceId) : 0;
    const RdpdrStreamPtr stream = shares.BuildDeviceAnnounce(deviceId, deviceType, permission, friendlyName,
                                                             !driveLetterMappingDisabled);
    if (!stream)
        return 0;
    Write(stream.get());
    return 1;
}

void RdpdrChannelManager::SendDeviceRemove(uint32_t deviceId)
{
    FODR_TRACE_FUNCTION();
    std::array<uint8_t, kWireEnd<DR_DEVICELIST_REMOVE>> bytes;
    StorePacket(DR_DEVICELIST_REMOVE{.DeviceId = deviceId}, bytes.data());
    RdpdrStream packet(bytes.data(), bytes.size());
    Write(&packet);
}

} // namespace fodr
