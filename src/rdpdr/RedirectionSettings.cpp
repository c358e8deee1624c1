#include "rdpdr/RedirectionSettings.h"

#include "lib/unicode/CodeSet.h"
#include "platform/Volumes.h"
#include "rdpdr/ShareNames.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <string_view>

namespace fodr {

namespace {

constexpr uint32_t kSmallestList = 3; // bytes: less holds nothing but a terminator

} // namespace

bool RedirectionSettings::ReadNumber(const std::string &name, uint32_t *number) const
{
    uint32_t type = platform::kRegNone;
    uint32_t size = sizeof(*number);
    return platform::RegistryQuery(key.Get(), name, true, &type, number, &size) == platform::kErrorSuccess &&
           type == platform::kRegDword && size == sizeof(*number);
}

RedirectionSettings::ListResult RedirectionSettings::ReadList(const std::string &name,
                                                              std::vector<std::string> *list) const
{
    list->clear();
    uint32_t size = 0;
    uint32_t error = platform::RegistryQuery(key.Get(), name, true, nullptr, nullptr, &size);
    if (error != platform::kErrorSuccess)
        return error == platform::kErrorFileNotFound ? ListResult::Missing : ListResult::SizeFailed;
    // Two units more than asked for: the list may lack its terminators.
    std::u16string units(size / sizeof(char16_t) + 2, u'\0');
    if (platform::RegistryQuery(key.Get(), name, true, nullptr, units.data(), &size) !=
        platform::kErrorSuccess)
        return ListResult::DataFailed;
    if (size < kSmallestList)
        return ListResult::Empty;
    for (const char16_t *text = units.c_str(); *text != u'\0';) {
        std::u16string_view view(text);
        std::string entry;
        if (Utf16ToUtf8(view, entry))
            list->push_back(entry);
        else
            LOG_WARN("An entry of %s is not valid text.\n", name.c_str());
        text += view.size() + 1;
    }
    return ListResult::Read;
}

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
    using Result = RedirectionSettings::ListResult;
    RedirectionSettings settings;
    std::vector<std::string> folders;
    Result result = settings.IsMissing() ? Result::Missing : Result::SizeFailed;
    if (settings.IsOpen())
        result = settings.ReadList("AllowedFolders", &folders);
    limited = result != Result::Missing;
    isReadable = result != Result::SizeFailed && result != Result::DataFailed;
    for (const std::string &folder : folders)
        roots.push_back(Comparable(ToNtPath(folder)));
}

bool LocalFolderLimit::Allows(const std::string &folder) const
{
    if (!limited || Contains(ToNtPath(folder)))
        return true;
    LogRefusal("Folder", folder);
    return false;
}

void LocalFolderLimit::LogRefusal(const char *what, const std::string &path) const
{
    if (isReadable)
        LOG_WARN("%s %s is outside of the folders that this machine allows.\n", what, path.c_str());
    else
        LOG_WARN("%s %s is not shared, as the setting AllowedFolders can't be read.\n", what, path.c_str());
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
            LogRefusal("File", file);
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

nt::ShareRules ReadShareRules()
{
    nt::ShareRules rules;
    RedirectionSettings settings;
    uint32_t number = 0;
    if (!settings.IsOpen())
        return rules;
    if (settings.ReadNumber("caseSensitivity", &number)) {
        if (number == 1)
            rules.names = nt::CaseRule::AnyCaseNoMerge;
        if (number == 2)
            rules.names = nt::CaseRule::Exact;
    }
    rules.readOnly = settings.ReadNumber("readOnlyShares", &number) && number != 0;
    rules.linksOutside = settings.ReadNumber("linksOutside", &number) && number != 0;
    return rules;
}

} // namespace fodr
