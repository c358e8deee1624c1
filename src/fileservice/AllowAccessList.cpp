#include "fileservice/AllowAccessList.h"

#include "lib/unicode/AsciiCase.h"
#include "platform/LocalPath.h"

#include <algorithm>
#include <utility>

namespace fodr {

namespace {

constexpr std::string_view kZoneMark = ":Zone.Identifier";
constexpr std::string_view kNtPrefix = "\\??\\";

// The backslash that ends the bare prefix belongs to it: "\??\\name" is what a share of "/" is asked for.
std::string RootOf(const std::string &path)
{
    return path.ends_with('\\') && path != kNtPrefix ? path : path + '\\';
}

// What stands before the last separator; a separator that is a root of its own stays.
std::string_view ParentOf(std::string_view path)
{
    size_t separator = path.find_last_of("/\\");
    if (separator == std::string_view::npos)
        return ".";
    bool isRoot = separator == 0 || (separator == 2 && path[1] == ':');
    return path.substr(0, isRoot ? separator + 1 : separator);
}

bool IsAtOrBelow(std::string_view path, std::string_view entry)
{
    if (!path.starts_with(entry))
        return false;
    std::string_view rest = path.substr(entry.size());
    return rest.empty() || rest[0] == '\\' || rest[0] == '/' || AsciiEqualsNoCase(rest, kZoneMark);
}

} // namespace

bool IsZoneMark(std::string_view absolutePath)
{
    return absolutePath.size() >= kZoneMark.size() &&
           AsciiEqualsNoCase(absolutePath.substr(absolutePath.size() - kZoneMark.size()), kZoneMark);
}

AllowAccessList::AllowAccessList(std::string rootPath, const std::vector<std::string> &names, bool limited)
    : path(std::move(rootPath)), root(RootOf(path)), onlyEntries(limited)
{
    auto all = std::make_shared<Entries>();
    for (const std::string &name : names)
        all->push_back(root + name);
    entries = std::move(all);
}

AllowAccessList::Entries AllowAccessList::Append(const std::vector<std::string> &names)
{
    OVMutexLock held(listLock);
    auto all = std::make_shared<Entries>(*entries);
    Entries added;
    for (const std::string &name : names) {
        std::string entry = root + name;
        if (std::find(all->begin(), all->end(), entry) != all->end())
            continue;
        all->push_back(entry);
        added.push_back(std::move(entry));
    }
    if (!added.empty())
        entries = std::move(all);
    return added;
}

std::shared_ptr<const AllowAccessList::Entries> AllowAccessList::Current() const
{
    OVMutexLock held(listLock);
    return entries;
}

bool AllowAccessList::Covers(const std::string &absolutePath) const
{
    std::string_view clean = absolutePath;
    if (clean.ends_with('\\'))
        clean.remove_suffix(1);
    bool isDirectlyBelow = ParentOf(clean) == path;
    auto current = Current();
    return std::any_of(current->begin(), current->end(), [&](const std::string &entry) {
        return isDirectlyBelow ? clean == entry : absolutePath.starts_with(entry);
    });
}

bool AllowAccessList::IsWithinLimit(std::string_view absolutePath) const
{
    if (!onlyEntries)
        return true;
    auto current = Current();
    return std::any_of(current->begin(), current->end(),
                       [absolutePath](const std::string &entry) { return IsAtOrBelow(absolutePath, entry); });
}

bool AllowAccessList::Shows(std::string_view name) const
{
    auto current = Current();
    return std::any_of(current->begin(), current->end(), [&](const std::string &entry) {
        return platform::LocalNamesEqual(std::string_view(entry).substr(root.size()), name);
    });
}

} // namespace fodr
