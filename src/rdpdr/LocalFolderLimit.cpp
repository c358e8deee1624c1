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

// With one kind of separator.
std::string Comparable(std::string ntPath)
{
    std::replace_if(ntPath.begin(), ntPath.end(), platform::IsLocalSeparator, '\\');
    return ntPath;
}

// Both comparable.
bool IsAtOrBelow(std::string_view path, std::string_view root)
{
    return path.size() >= root.size() && platform::LocalNamesEqual(path.substr(0, root.size()), root) &&
           (path.size() == root.size() || path[root.size()] == '\\');
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
        roots.push_back(Comparable(ToNtPath(folder)));
}

bool LocalFolderLimit::Allows(const std::string &folder) const
{
    if (!limited || Contains(ToNtPath(folder)))
        return true;
    LOG_WARN("Folder %s is outside of the folders that this machine allows.\n", folder.c_str());
    return false;
}

FolderOffer LocalFolderLimit::OfferOfFiles(const std::string &folder,
                                           const std::vector<std::string> &names) const
{
    const std::string ntPath = ToNtPath(folder);
    if (!limited || Contains(ntPath))
        return {true, names};
    FolderOffer offer{false, {}};
    for (const std::string &name : names) {
        std::string file = ntPath + '\\' + name;
        if (Contains(file))
            offer.files.push_back(name);
        else
            LOG_WARN("File %s is outside of the folders that this machine allows.\n", file.c_str());
    }
    if (names.empty())
        Allows(folder);
    return offer;
}

bool LocalFolderLimit::Contains(const std::string &ntPath) const
{
    std::string comparable = Comparable(ntPath);
    return !ClimbsUp(ntPath) &&
           std::any_of(roots.begin(), roots.end(),
                       [&comparable](const std::string &root) { return IsAtOrBelow(comparable, root); });
}

} // namespace fodr
