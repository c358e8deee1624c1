#include "ntposix/NtName.h"

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/NameMapping.h"

#include <algorithm>
#include <atomic>
#include <climits>

namespace fodr::ntposix {

using namespace nt;

namespace {

constexpr std::u16string_view kPrefix = u"\\??\\";
constexpr std::u16string_view kNetwork = u"UNC";
constexpr std::u16string_view kDataType = u"$DATA";

bool IsSeparator(char16_t unit)
{
    return unit == u'\\' || unit == u'/';
}

bool IsLetter(char16_t unit)
{
    return (unit >= u'A' && unit <= u'Z') || (unit >= u'a' && unit <= u'z');
}

bool IsNetworkName(std::u16string_view text)
{
    return text.size() >= kNetwork.size() && EqualsFolded(text.substr(0, kNetwork.size()), kNetwork) &&
           (text.size() == kNetwork.size() || IsSeparator(text[kNetwork.size()]));
}

// A device that isn't there: named alone it isn't found, with something behind it the path isn't.
NTSTATUS UnknownDevice(std::u16string_view text)
{
    return text.find_first_of(u"\\/") == std::u16string_view::npos ? STATUS_OBJECT_NAME_NOT_FOUND
                                                                   : STATUS_OBJECT_PATH_NOT_FOUND;
}

// Whether a component of the POSIX path from `begin` on is empty, "." or "..".
bool HasImproperComponent(std::string_view path, size_t begin)
{
    while (begin <= path.size()) {
        const size_t end = std::min(path.find('/', begin), path.size());
        const std::string_view component = path.substr(begin, end - begin);
        if (component.empty() || component == "." || component == "..")
            return true;
        begin = end + 1;
    }
    return false;
}

} // namespace

NTSTATUS NtName::Parse(std::u16string_view text, NtName *name)
{
    *name = NtName();
    if (text.substr(0, kPrefix.size()) != kPrefix)
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    const NTSTATUS status = name->AppendText(text.substr(kPrefix.size()));
    if (status == STATUS_SUCCESS)
        name->FindRoot(text);
    return status;
}

// What stands behind the prefix.
NTSTATUS NtName::AppendText(std::u16string_view text)
{
    if (text.empty())
        return STATUS_OBJECT_NAME_INVALID;
    if (IsNetworkName(text))
        return STATUS_BAD_NETWORK_PATH;
    if (IsSeparator(text[0])) {
        text.remove_prefix(1);
        if (!text.empty() && IsSeparator(text[0]))
            text.remove_prefix(1);
        return AppendComponents(text);
    }
    const bool isDrive = text.size() >= 2 && IsLetter(text[0]) && text[1] == u':' &&
                         (text.size() == 2 || IsSeparator(text[2]));
    if (!isDrive)
        return UnknownDevice(text);
    path = PathOfDriveLetter(static_cast<char>(text[0]));
    if (path.empty())
        return UnknownDevice(text);
    if (path == "/")
        path.clear();
    return AppendComponents(text.substr(text.size() == 2 ? 2 : 3));
}

// Empty text names the root directory or the drive's own.
NTSTATUS NtName::AppendComponents(std::u16string_view text)
{
    if (!text.empty() && IsSeparator(text.back())) {
        trailingSeparator = true;
        text.remove_suffix(1);
        if (text.empty())
            return STATUS_OBJECT_NAME_INVALID;
    }
    if (text.empty()) {
        trailingSeparator = true;
        if (path.empty())
            path = "/";
        return STATUS_SUCCESS;
    }
    if (const NTSTATUS status = SplitStream(&text, &stream); status != STATUS_SUCCESS)
        return status;
    std::string below;
    if (!PosixPathFromNt(text, below) || HasImproperComponent(below, 0))
        return STATUS_OBJECT_NAME_INVALID;
    if (path.size() + below.size() + 1 >= PATH_MAX)
        return STATUS_NAME_TOO_LONG;
    path += '/';
    path += below;
    return STATUS_SUCCESS;
}

// Below the root every separator stands before one component, but one at the very end. (That the root
// directory may have two at its joint only leads to the front of the path.)
void NtName::FindRoot(std::u16string_view text)
{
    root = ShareRoots::Instance().Find(text);
    if (!root)
        return;
    text.remove_prefix(root->text.size());
    if (!text.empty() && IsSeparator(text.back()))
        text.remove_suffix(1);
    rootEnd = path == "/" ? 0 : path.size();
    for (auto left = std::count_if(text.begin(), text.end(), IsSeparator); left > 0 && rootEnd > 0; --left)
        rootEnd = path.rfind('/', rootEnd - 1);
}

std::string_view NtName::RootPath() const
{
    return rootEnd == 0 ? "/" : std::string_view(path).substr(0, rootEnd);
}

std::string_view NtName::Below() const
{
    return std::string_view(path).substr(std::min(rootEnd + 1, path.size()));
}

// MS-FSCC 2.1.5: name[:stream[:type]], in the last component alone. The type is $DATA or absent.
NTSTATUS NtName::SplitStream(std::u16string_view *text, std::u16string *streamName)
{
    const size_t leaf = text->find_last_of(u"\\/") + 1;
    const size_t colon = text->find(u':', leaf);
    if (colon == std::u16string_view::npos)
        return STATUS_SUCCESS;
    std::u16string_view suffix = text->substr(colon + 1);
    const size_t second = suffix.find(u':');
    if (second != std::u16string_view::npos) {
        if (!EqualsFolded(suffix.substr(second + 1), kDataType))
            return STATUS_OBJECT_NAME_INVALID;
        suffix = suffix.substr(0, second);
    } else if (suffix.empty()) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    *text = text->substr(0, colon);
    *streamName = suffix;
    return STATUS_SUCCESS;
}

NtName NtName::OfFile() const
{
    NtName file = *this;
    file.stream.clear();
    return file;
}

PathParts SplitPath(std::string_view path)
{
    const std::string_view leaf = LeafOf(path);
    std::string_view parent = path.substr(0, path.size() - leaf.size());
    if (parent.size() > 1)
        parent.remove_suffix(1);
    return {std::string(parent), std::string(leaf)};
}

std::string_view LeafOf(std::string_view path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string JoinPath(std::string_view directory, std::string_view leaf)
{
    std::string joined(directory);
    if (joined != "/")
        joined += '/';
    joined += leaf;
    return joined;
}

namespace {

std::string DefaultPath(char letter)
{
    return letter == 'C' || letter == 'c' ? "/" : "";
}

std::atomic<DriveLetterResolver> resolve{&DefaultPath};

} // namespace

void SetDriveLetterResolver(DriveLetterResolver resolver)
{
    resolve = resolver ? resolver : &DefaultPath;
}

std::string PathOfDriveLetter(char letter)
{
    return resolve.load()(letter);
}

} // namespace fodr::ntposix
