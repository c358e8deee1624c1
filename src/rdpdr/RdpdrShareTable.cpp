// RdpdrChannelManager: which folders become shares, under which name and number.
#include "drives/FodrDeviceUtils.h"
#include "fileservice/AllowListFileSystem.h"
#include "fileservice/FileSystemImpl.h"
#include "fileservice/RedirectedDeviceAccessControl.h"
#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"
#include "platform/Nt.h"
#include "rdpdr/PreReadManager.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/RedirectionSettings.h"
#include "rdpdr/ShareNames.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <new>
#include <unordered_set>
#include <utility>

namespace fodr {

namespace {

constexpr const char *kStatusInvalidPath = "FOLDER_REDIRECTION_CMD_STATUS,Invalid share path";
constexpr const char *kStatusNoPolicy = "FOLDER_REDIRECTION_CMD_STATUS,Policy is not received from Agent";
constexpr const char *kStatusSucceeded = "FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED";
constexpr const char *kStatusInternalError = "FOLDER_REDIRECTION_CMD_STATUS,Internal system error";
constexpr const char *kStatusNoFolder =
    "FOLDER_REDIRECTION_CMD_STATUS,Folder not exist or invalid parameter or configuration";
constexpr const char *kStatusNameChanged = "FOLDER_REDIRECTION_CMD_STATUS,Share name change to ";

bool EqualsNoCase(const std::string &a, const std::string &b)
{
    return AsciiCompareNoCase(a.c_str(), b.c_str()) == 0;
}

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

} // namespace

// One add, with what was found out about it before the table is locked.
struct RdpdrChannelManager::ShareRequest {
    const std::string &path;
    const std::string &cookie;
    bool driveLetterShare;
    uint32_t permission;
    const std::string &shareName;
    SharedType type;
    bool policyApplies;
    std::string ntPath;
    FolderOffer offer;
    nt::ShareRules rules;
};

// What a look at the folder has shown. It is taken without the table's lock, since a folder that hangs must
// not keep the requests of other shares waiting.
struct RdpdrChannelManager::FolderLook {
    uint64_t driveEvents = 0;     // when it was taken
    std::vector<Device> compared; // the shares of this path in any case, at that time
    Device present;               // the one among them that is of this very folder
    bool exists = false;          // looked for only where there is none
    bool exact = false;           // and that under its very name
};

// What came of it under the lock.
struct RdpdrChannelManager::ShareOutcome {
    Device added;         // null: no new share
    bool first = false;   // it made a table of one entry
    bool exists = false;  // its folder does
    bool present = false; // the share is in the table, new or old
    std::vector<std::string> statuses;
};

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
    const ShareRequest request{path, cookie,        driveLetterShare, permission,       shareName,
                               type, policyApplies, ToNtPath(path),   std::move(offer), ReadShareRules()};
    std::optional<ShareOutcome> outcome;
    while (!outcome)
        outcome = InsertShare(request, LookAtFolder(request));
    for (const std::string &status : outcome->statuses)
        Notify(cookie.c_str(), status);
    if (outcome->added) {
        LOG_INFO("New folder shared: %s.\n", path.c_str());
        StartDriveWatcher(outcome->first);
        AnnounceShare(*outcome->added, outcome->exists, cookie);
    }
    return outcome->present;
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

RdpdrChannelManager::FolderLook RdpdrChannelManager::LookAtFolder(const ShareRequest &request)
{
    FODR_TRACE_FUNCTION();
    FolderLook look;
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
    const uint32_t matching = NeedsAccessControl(request.shareName) ? 0 : nt::OBJ_CASE_INSENSITIVE;
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

std::optional<RdpdrChannelManager::ShareOutcome> RdpdrChannelManager::InsertShare(const ShareRequest &request,
                                                                                  const FolderLook &look)
{
    FODR_TRACE_FUNCTION();
    OVMutexLock held(deviceTableLock);
    if (look.driveEvents != driveEvents || look.compared != SharesOfPath(request.ntPath, request.type))
        return {};
    ShareOutcome outcome;
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
    if (NeedsAccessControl(request.shareName))
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
    ClientPolicy *agentPolicy = policy;
    if (!look.exists && request.cookie.empty() && agentPolicy && !agentPolicy->IsSharedByAgent()) {
        outcome.statuses.push_back(kStatusNoFolder);
        return outcome;
    }
    const std::string friendlyName = NameShare(request, &outcome.statuses);
    outcome.added =
        CreateDevice(request, look.exists, friendlyName, std::move(fileSystem), std::move(allowList));
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

std::vector<RdpdrChannelManager::Device> RdpdrChannelManager::SharesOfPath(const std::string &ntPath,
                                                                           SharedType type)
{
    std::vector<Device> found;
    for (const auto &[id, device] : devices) {
        if (EqualsNoCase(ntPath, device->GetPath()) && type == GetSharedType(device->GetFriendlyName()))
            found.push_back(device);
    }
    return found;
}

std::string RdpdrChannelManager::NameShare(const ShareRequest &request, std::vector<std::string> *statuses)
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

std::string RdpdrChannelManager::GenerateFriendlyName(const std::string &path, const std::string &shareName)
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

RdpdrChannelManager::Device RdpdrChannelManager::CreateDevice(const ShareRequest &request, bool available,
                                                              const std::string &friendlyName,
                                                              std::unique_ptr<IFileSystem> fileSystem,
                                                              std::shared_ptr<AllowAccessList> allowList)
{
    FODR_TRACE_FUNCTION();
    RedirectedDeviceSettings settings;
    settings.channel = channel;
    settings.packetTrace = packetTrace;
    settings.deviceType = DeviceTypeOfPath(request.path);
    settings.path = request.ntPath;
    settings.sharePath = request.path;
    settings.name = request.cookie;
    settings.friendlyName = friendlyName;
    settings.available = available;
    settings.driveLetterShare = request.driveLetterShare;
    settings.multiEntryDirectoryQuery = multiEntryDirectoryQuery;
    settings.readOnly = request.policyApplies && readOnly;
    settings.preReadEnabled = preReadEnabled;
    settings.preReader = &PreReadManager::GetInstance();
    settings.filterPolicy = request.policyApplies ? policy.load() : nullptr;
    if (allowList)
        return new (std::nothrow)
            RedirectedDeviceAccessControl(std::move(fileSystem), std::move(settings), std::move(allowList));
    return new (std::nothrow) RedirectedDevice(std::move(fileSystem), std::move(settings));
}

} // namespace fodr
