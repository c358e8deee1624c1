#include "rdpdr/ShareNames.h"

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"
#include "platform/Nt.h"
#include "platform/Volumes.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <limits>
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

namespace {

constexpr size_t kRoot = 4; // of "\??\C:"
constexpr size_t kColon = 5;

bool HasDrive(std::string_view ntPath)
{
    return ntPath.size() > kColon && ntPath[kColon] == ':';
}

} // namespace

bool NtPathsEqual(std::string_view a, std::string_view b)
{
    if (HasDrive(a) && HasDrive(b) && AsciiToLower(a[kRoot]) == AsciiToLower(b[kRoot])) {
        a.remove_prefix(kColon);
        b.remove_prefix(kColon);
    }
    return platform::LocalNamesEqual(a, b);
}

bool FolderExists(const std::string &ntPath, uint32_t nameMatching)
{
    // The separator makes a whole name of a drive ("\??\C:\") and of the root of all ("\??\\"). A path that
    // isn't UTF-8 names nothing; an agent's policy may hold one and must not end the process by it.
    std::u16string text;
    if (!Utf8ToUtf16(ntPath + "\\", text))
        return false;
    const size_t bytes = text.size() * sizeof(char16_t);
    if (bytes > std::numeric_limits<uint16_t>::max())
        return false;
    nt::UNICODE_STRING name{static_cast<uint16_t>(bytes), static_cast<uint16_t>(bytes), text.data()};
    nt::OBJECT_ATTRIBUTES attributes{
        sizeof(nt::OBJECT_ATTRIBUTES), nullptr, &name, nameMatching, nullptr, nullptr};
    nt::IO_STATUS_BLOCK ioStatus{};
    nt::HANDLE handle = nullptr;
    nt::NTSTATUS status = nt::NtCreateFile(
        &handle, nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0,
        nt::FILE_SHARE_READ | nt::FILE_SHARE_WRITE | nt::FILE_SHARE_DELETE, nt::FILE_OPEN,
        nt::FILE_DIRECTORY_FILE | nt::FILE_SYNCHRONOUS_IO_NONALERT | nt::FILE_OPEN_FOR_BACKUP_INTENT, nullptr,
        0);
    if (nt::IsError(status))
        return false;
    nt::NtClose(handle);
    return true;
}

bool IsSameFolder(const std::string &a, const std::string &b)
{
    std::u16string localA;
    std::u16string localB;
    return Utf8ToUtf16(a.substr(kRoot), localA) && Utf8ToUtf16(b.substr(kRoot), localB) &&
           platform::IsSameFolder(localA, localB);
}

bool AreTwoFolders(const std::string &a, const std::string &b)
{
    return FolderExists(a, 0) && FolderExists(b, 0) && !IsSameFolder(a, b);
}

} // namespace fodr
