#include "rdpdr/ShareNames.h"

#include "platform/Volumes.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <string_view>

namespace fodr {

namespace {

struct Tag {
    SharedType type;
    std::string_view text;
    std::string_view friendlyForm;
};

constexpr Tag kTags[] = {
    {SharedType::FolderRedirection, "(OVFR)", "(OV.FR)"},
    {SharedType::DragAndDrop, "(OVDND)", "(OV.DND)"},
    {SharedType::FileCopyPaste, "(OVFCP)", "(OV.FCP)"},
};

constexpr std::string_view kInvalidNameChars = "<>\"/\\|:?@*";

const Tag *TagOf(std::string_view name)
{
    const Tag *found = std::find_if(std::begin(kTags), std::end(kTags),
                                    [name](const Tag &tag) { return name.starts_with(tag.text); });
    return found == std::end(kTags) ? nullptr : found;
}

std::string LastComponent(const std::string &path)
{
    size_t end = path.size();
    while (end > 0 && (platform::IsLocalSeparator(path[end - 1]) || path[end - 1] == ':'))
        --end;
    if (end == 0)
        end = path.size(); // separators and colons alone: kept whole
    size_t begin = end;
    while (begin > 0 && !platform::IsLocalSeparator(path[begin - 1]))
        --begin;
    return path.substr(begin, end - begin);
}

} // namespace

SharedType GetSharedType(const std::string &name)
{
    const Tag *tag = TagOf(name);
    return tag ? tag->type : SharedType::None;
}

std::string ToNtPath(const std::string &path)
{
    const std::string prefix = "\\??\\";
    if (path.size() == 1) {
        bool isLocalRoot = path[0] != '\\' && platform::IsLocalSeparator(path[0]);
        return isLocalRoot ? prefix : prefix + path + ":";
    }
    bool isUnc = path.starts_with("\\\\");
    std::string rest = isUnc ? path.substr(2) : path;
    if (!rest.empty() && platform::IsLocalSeparator(rest.back()))
        rest.pop_back();
    return prefix + (isUnc ? "UNC\\" : "") + rest;
}

std::string PlainFriendlyName(const std::string &path, const std::string &shareName)
{
    std::string name = shareName.empty() ? LastComponent(path) : shareName;
    for (char &c : name) {
        if (kInvalidNameChars.find(c) != std::string_view::npos) {
            LOG_DEBUG("friendlyName contains invalid char [%c], replacing to [_].\n", c);
            c = '_';
        }
    }
    name.erase(name.find_last_not_of(' ') + 1);
    if (name.empty())
        name = "_";
    if (const Tag *tag = TagOf(name))
        name.replace(0, tag->text.size(), tag->friendlyForm);
    return name;
}

} // namespace fodr
