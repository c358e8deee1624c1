#include "drives/FodrClientUtils.h"

#include "lib/unicode/CodeSet.h"
#include "platform/SystemError.h"
#include "platform/Volumes.h"
#include "runtime/LogCall.h"

#include <string_view>

namespace fodr {

namespace {

// As many links as file systems follow in a row; without an end a loop would be followed forever.
constexpr int kMostLinks = 40;

size_t LastSeparator(std::u16string_view path)
{
    size_t at = path.size();
    while (at > 0 && !(path[at - 1] < 0x80 && platform::IsLocalSeparator(static_cast<char>(path[at - 1]))))
        --at;
    return at;
}

// Separators at the end don't count: of "a/b/" the parent is "a". A root's own separator stays.
std::u16string ParentOf(std::u16string_view path)
{
    size_t end = path.size();
    while (end > 0 && LastSeparator(path.substr(0, end)) == end)
        --end;
    return std::u16string(path.substr(0, LastSeparator(path.substr(0, end))));
}

std::u16string Join(std::u16string folder, const std::u16string &target)
{
    if (!folder.empty() && LastSeparator(folder) != folder.size())
        folder += static_cast<char16_t>(platform::LocalSeparator());
    return folder + target;
}

} // namespace

std::string FodrClientUtils::GetLinkPath(const std::string &path)
{
    std::u16string current;
    platform::LinkKind kind = platform::LinkKind::Missing;
    if (!Utf8ToUtf16(path, current) || platform::QueryLinkKind(current, kind) != platform::kErrorSuccess ||
        kind != platform::LinkKind::SymbolicLink)
        return path;
    for (int followed = 0; followed < kMostLinks && kind == platform::LinkKind::SymbolicLink; ++followed) {
        std::u16string target;
        if (platform::ReadLinkTarget(current, target) != platform::kErrorSuccess || target.empty())
            break;
        current = platform::IsAbsoluteLocalPath(target) ? target : Join(ParentOf(current), target);
        platform::QueryLinkKind(current, kind);
    }
    std::string result;
    if (!Utf16ToUtf8(current, result) || result.empty())
        return path;
    LOG_TRACE("Link path of %s is %s", path.c_str(), result.c_str());
    return result;
}

} // namespace fodr
