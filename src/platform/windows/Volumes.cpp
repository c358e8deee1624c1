#include "platform/Volumes.h"

#include "platform/SystemError.h"
#include "platform/windows/Win32.h"

#include <winioctl.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

namespace fodr::platform {

namespace {

constexpr DWORD kPathUnits = 260;

bool IsLetter(char16_t c)
{
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}

bool IsEitherSlash(char16_t c)
{
    return c == u'\\' || c == u'/';
}

// What a bare drive means is the folder that is current there; here it is always the root.
std::wstring Whole(std::u16string_view path)
{
    std::wstring whole(path.begin(), path.end());
    if (!whole.empty() && whole.back() == L':')
        whole.push_back(L'\\');
    return whole;
}

// "X:\" or "\\?\Volume{...}\"
bool IsRoot(std::u16string_view path)
{
    constexpr std::u16string_view kVolume = u"\\\\?\\Volume{";
    constexpr size_t kGuid = 36;
    return path.ends_with(u":\\") || path.ends_with(u":/") ||
           (path.starts_with(kVolume) && path.size() == kVolume.size() + kGuid + 2);
}

// With a separator behind it, the name of a link isn't the link's own: searches and opens fail, or go through
// it. A root keeps its separator.
std::wstring NameOfItself(std::u16string_view path)
{
    while (path.size() > 1 && IsEitherSlash(path.back()) && !IsRoot(path))
        path.remove_suffix(1);
    return {path.begin(), path.end()};
}

// What stands there itself, to ask it for its facts; a link isn't followed.
OwnedHandle OpenItself(std::u16string_view path)
{
    return OwnedHandle(CreateFileW(NameOfItself(path).c_str(), FILE_READ_ATTRIBUTES,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS,
                                   nullptr));
}

// MS-FSCC 2.1.2.4 and 2.1.2.5, as far as names are concerned; the header is the same for every tag.
struct ReparseHeader {
    uint32_t tag;
    uint16_t dataLength;
    uint16_t reserved;
    uint16_t substituteOffset;
    uint16_t substituteLength;
    uint16_t printOffset;
    uint16_t printLength;
};
constexpr size_t kSymlinkNames = 20; // behind the flags
constexpr DWORD kReparseBuffer = 16386;

OwnedHandle OpenFolder(const std::u16string &path)
{
    return OwnedHandle(CreateFileW(Whole(path).c_str(), FILE_READ_ATTRIBUTES,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

bool FactsOfFolder(HANDLE folder, BY_HANDLE_FILE_INFORMATION &facts)
{
    return GetFileInformationByHandle(folder, &facts) &&
           (facts.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

} // namespace

DriveType DriveTypeOfLetter(char letter)
{
    const char root[] = {letter, ':', '\\', '\0'};
    return static_cast<DriveType>(GetDriveTypeA(root));
}

std::string LocalPathOfDriveLetter(char letter)
{
    if (!IsLetter(static_cast<unsigned char>(letter)))
        return {};
    return {static_cast<char>(letter & ~0x20), ':'};
}

bool IsLocalSeparator(char c)
{
    return c == '\\';
}

char LocalSeparator()
{
    return '\\';
}

bool IsAbsoluteLocalPath(const std::u16string &path)
{
    if (path.size() >= 3 && IsLetter(path[0]) && path[1] == u':')
        return IsEitherSlash(path[2]);
    return path.size() >= 3 && IsEitherSlash(path[0]) && IsEitherSlash(path[1]);
}

bool FreeSpaceOfFolder(const std::string &folder, uint64_t &bytes)
{
    std::wstring path;
    ULARGE_INTEGER available{};
    if (!Widen(folder, path))
        return false;
    if (!path.ends_with(L'\\'))
        path.push_back(L'\\'); // the root of a network share isn't known without
    if (!GetDiskFreeSpaceExW(path.c_str(), &available, nullptr, nullptr))
        return false;
    bytes = available.QuadPart;
    return true;
}

uint32_t MountPointOfPath(const std::u16string &path, std::u16string &mountPoint)
{
    wchar_t found[kPathUnits];
    if (!GetVolumePathNameW(Whole(path).c_str(), found, kPathUnits))
        return GetLastError();
    mountPoint = AsUtf16(found);
    return kErrorSuccess;
}

uint32_t VolumeNameOfMountPoint(const std::u16string &mountPoint, std::u16string &name)
{
    wchar_t found[kPathUnits];
    if (!GetVolumeNameForVolumeMountPointW(AsWide(mountPoint.c_str()), found, kPathUnits))
        return GetLastError();
    name = AsUtf16(found);
    return kErrorSuccess;
}

bool IsSameFolder(const std::u16string &a, const std::u16string &b)
{
    // Both are open while they are compared: a number may be used again once its folder is gone.
    const OwnedHandle folderA = OpenFolder(a);
    const OwnedHandle folderB = OpenFolder(b);
    BY_HANDLE_FILE_INFORMATION factsOfA{};
    BY_HANDLE_FILE_INFORMATION factsOfB{};
    return folderA && folderB && FactsOfFolder(folderA.Get(), factsOfA) &&
           FactsOfFolder(folderB.Get(), factsOfB) &&
           factsOfA.dwVolumeSerialNumber == factsOfB.dwVolumeSerialNumber &&
           factsOfA.nFileIndexHigh == factsOfB.nFileIndexHigh &&
           factsOfA.nFileIndexLow == factsOfB.nFileIndexLow;
}

uint32_t QueryLinkKind(const std::u16string &path, LinkKind &kind)
{
    kind = LinkKind::Missing;
    const DWORD attributes = GetFileAttributesW(NameOfItself(path).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return GetLastError();
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        const OwnedHandle file = OpenItself(path);
        FILE_ATTRIBUTE_TAG_INFO facts{};
        if (!file || !GetFileInformationByHandleEx(file.Get(), FileAttributeTagInfo, &facts, sizeof(facts)))
            return GetLastError();
        if (facts.ReparseTag == IO_REPARSE_TAG_SYMLINK)
            kind = LinkKind::SymbolicLink;
        else if (facts.ReparseTag == IO_REPARSE_TAG_MOUNT_POINT)
            kind = LinkKind::Junction;
        if (kind != LinkKind::Missing)
            return kErrorSuccess;
    }
    kind = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? LinkKind::Directory : LinkKind::File;
    return kErrorSuccess;
}

uint32_t ReadLinkTarget(const std::u16string &link, std::u16string &target)
{
    const OwnedHandle file = OpenItself(link);
    if (!file)
        return GetLastError();
    std::vector<std::byte> buffer(kReparseBuffer);
    DWORD size = 0;
    if (!DeviceIoControl(file.Get(), FSCTL_GET_REPARSE_POINT, nullptr, 0, buffer.data(), kReparseBuffer,
                         &size, nullptr))
        return GetLastError();
    ReparseHeader header{};
    if (size < kSymlinkNames)
        return kErrorInvalidData;
    std::memcpy(&header, buffer.data(), sizeof(header));
    const size_t begin = kSymlinkNames + header.printOffset;
    if (header.tag != IO_REPARSE_TAG_SYMLINK || begin > size || header.printLength > size - begin)
        return kErrorInvalidData;
    target.resize(header.printLength / sizeof(char16_t));
    std::memcpy(target.data(), buffer.data() + begin, target.size() * sizeof(char16_t));
    // One that begins at the root of the link's own drive.
    const bool isRooted = !target.empty() && IsEitherSlash(target[0]) && !IsAbsoluteLocalPath(target);
    if (isRooted && link.size() >= 2 && link[1] == u':')
        target.insert(0, link, 0, 2);
    return kErrorSuccess;
}

bool LocalNamesEqual(std::string_view a, std::string_view b)
{
    std::wstring wideA;
    std::wstring wideB;
    if (!Widen(a, wideA) || !Widen(b, wideB))
        return a == b;
    return CompareStringOrdinal(wideA.data(), static_cast<int>(wideA.size()), wideB.data(),
                                static_cast<int>(wideB.size()), TRUE) == CSTR_EQUAL;
}

std::string PathInSharedForm(const std::string &localPath)
{
    return localPath;
}

// Folders of Windows aren't file systems that a process serves: nothing is ever mounted here.
MountHealth InspectMount(const std::string &)
{
    return MountHealth::None;
}

MountHealth InspectEndingMount(const std::string &, const std::string &, int)
{
    return MountHealth::None;
}

bool IsMounted(const std::string &, const std::string &)
{
    return false;
}

int UnmountOnce(const std::string &, bool)
{
    return EINVAL; // no mount point
}

std::vector<std::string> UnmountCommand(const std::string &, bool)
{
    return {};
}

bool DetachMount(const std::string &)
{
    return true;
}

std::string MountProblem()
{
    return "mounting isn't available on Windows: run the agent on a Linux machine";
}

} // namespace fodr::platform
