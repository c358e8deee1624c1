// RdpdrChannelManager: the shares that nobody commands, from the local settings and the agent's policy.
#include "platform/Volumes.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/RedirectionSettings.h"
#include "runtime/LogCall.h"

namespace fodr {

namespace {

std::string RootOfDrive(char letter)
{
    return std::string(1, letter) + ":\\";
}

bool DriveExists(char letter)
{
    return platform::DriveTypeOfLetter(letter) > platform::kDriveNoRootDir;
}

} // namespace

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
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        if (DriveExists(letter))
            AddSharedFolder(RootOfDrive(letter), "", true, 0, "");
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
    // A picture of the list, since an add takes deviceTableLock, which comes before the policy's lock. The
    // list itself stays as it is meanwhile: it changes under stateLock alone.
    for (const ClientPolicy::Folder &folder : policy.load()->Folders()) {
        if (ShareCount() >= kMostForPolicy) {
            LOG_WARN("Too many shares for the folders of the policy.\n");
            return;
        }
        if (!folder.isAll) {
            AddSharedFolder(folder.path, "", true, folder.permission, "");
            continue;
        }
        for (char letter = 'A'; letter <= 'Z'; ++letter) {
            if (DriveExists(letter))
                AddSharedFolder(RootOfDrive(letter), "", true, folder.permission, "");
        }
    }
}

} // namespace fodr
