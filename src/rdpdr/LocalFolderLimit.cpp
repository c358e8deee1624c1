#include "rdpdr/LocalFolderLimit.h"

#include "platform/LocalPath.h"
#include "platform/Volumes.h"
#include "rdpdr/RedirectionSettings.h"
#include "rdpdr/ShareNames.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <string_view>

namespace fodr {

namespace {

bool ClimbsUp(std::string_view path)
{
    while (!path.empty()) {
        auto end = std::find_if(path.begin(), path.end(), platform::IsLocalSeparator);
        if (std::string_view(path.begin(), end) == "..")
            return true;
        path.remove_prefix(static_cast<size_t>(end - path.begin()) + (end != path.end() ? 1 : 0));
    }
    return false;
}

// Both in NT form.
bool IsAtOrBelow(std::string_view path, std::string_view root)
{
    return path.size() >= root.size() && platform::LocalNamesEqual(path.substr(0, root.size()), root) &&
           (path.size() == root.size() || platform::IsLocalSeparator(path[root.size()]));
}

} // namespace

LocalFolderLimit::LocalFolderLimit()
{
    RedirectionSettings settings;
    if (!settings.IsOpen()) {
        limited = !settings.IsMissing();
        return;
    }
    std::vector<std::string> folders;
    limited = settings.ReadList("AllowedFolders", &folders) != RedirectionSettings::ListResult::Missing;
    for (const std::string &folder : folders)
        roots.push_back(ToNtPath(folder));
}

bool LocalFolderLimit::Allows(const std::string &folder) const
{
    if (!limited || Contains(folder))
        return true;
    LOG_WARN("Folder %s is outside of the folders that this machine allows.\n", folder.c_str());
    return false;
}

bool LocalFolderLimit::Contains(const std::string &folder) const
{
    std::string ntPath = ToNtPath(folder);
    return !ClimbsUp(folder) && std::any_of(roots.begin(), roots.end(), [&ntPath](const std::string &root) {
        return IsAtOrBelow(ntPath, root);
    });
}

} // namespace fodr
