#include "fileservice/AllowAccessList.h"

#include "lib/unicode/CaseFolding.h"
#include "platform/Volumes.h"

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

} // namespace

bool IsZoneMark(std::string_view absolutePath)
{
    return absolutePath.size() >= kZoneMark.size() &&
           AsciiEqualsNoCase(absolutePath.substr(absolutePath.size() - kZoneMark.size()), kZoneMark);
}

AllowAccessList::AllowAccessList(std::string rootPath, const std::vector<std::string> &names, bool limited)
    : path(std::move(rootPath)), root(RootOf(path)), onlyEntries(limited)
{
    auto first = std::make_shared<List>();
    for (const std::string &name : names) {
        first->entries.push_back(root + name);
        first->sorted.insert(root + name);
    }
    list = std::move(first);
}

AllowAccessList::Entries AllowAccessList::Append(const std::vector<std::string> &names)
{
    OVMutexLock held(listLock);
    auto longer = std::make_shared<List>(*list);
    Entries added;
    for (const std::string &name : names) {
        std::string entry = root + name;
        if (!longer->sorted.insert(entry).second)
            continue;
        longer->entries.push_back(entry);
        added.push_back(std::move(entry));
    }
    if (!added.empty())
        list = std::move(longer);
    return added;
}

std::shared_ptr<const AllowAccessList::List> AllowAccessList::Take() const
{
    OVMutexLock held(listLock);
    return list;
}

std::shared_ptr<const AllowAccessList::Entries> AllowAccessList::Current() const
{
    auto current = Take();
    return {current, &current->entries};
}

bool AllowAccessList::Covers(const std::string &absolutePath) const
{
    std::string_view clean = absolutePath;
    if (clean.ends_with('\\'))
        clean.remove_suffix(1);
    auto current = Take();
    if (ParentOf(clean) == path)
        return current->sorted.contains(clean);
    return std::any_of(current->entries.begin(), current->entries.end(),
                       [&](const std::string &entry) { return absolutePath.starts_with(entry); });
}

bool AllowAccessList::IsWithinLimit(std::string_view absolutePath) const
{
    if (!onlyEntries)
        return true;
    if (IsZoneMark(absolutePath))
        absolutePath.remove_suffix(kZoneMark.size());
    auto current = Take();
    // The path itself, then the folders above it.
    for (size_t end = absolutePath.size(); end != std::string_view::npos && end >= root.size();
         end = absolutePath.find_last_of("/\\", end - 1)) {
        if (current->sorted.contains(absolutePath.substr(0, end)))
            return true;
    }
    return false;
}

bool AllowAccessList::Shows(std::string_view name) const
{
    auto current = Take();
    if (current->sorted.contains(root + std::string(name)))
        return true;
    return std::any_of(current->entries.begin(), current->entries.end(), [&](const std::string &entry) {
        return platform::LocalNamesEqual(std::string_view(entry).substr(root.size()), name);
    });
}

} // namespace fodr
