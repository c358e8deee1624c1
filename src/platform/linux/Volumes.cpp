#include "platform/Volumes.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/unicode/CodeSet.h"
#include "lib/unicode/NameMapping.h"
#include "ntposix/Lookup.h"
#include "ntposix/NtName.h"
#include "platform/SystemError.h"
#include "platform/linux/BlockDevice.h"
#include "platform/linux/MountTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <system_error>

namespace fodr::platform {

namespace {

bool IsSeparator(char16_t c)
{
    return c == u'/' || c == u'\\';
}

bool IsLetter(char16_t c)
{
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}

// `path` begins with a separator or a drive letter and a colon, is empty (the root), and may mix separators
// and names as a remote machine sees them. What the file calls open (src/ntposix) it resolves to the very
// same path, so that nothing that is decided by it is got around: two separators at the front are one, a
// stream suffix is no part of the name, and components are found without case where there is none of the
// exact name. What doesn't exist is left as it is written; ".." is what the system makes of it. `*local` is
// absolute and has no separator at its end but the root's. kErrorInvalidName or kErrorPathNotFound (no such
// drive) on failure.
uint32_t ResolveLocalPath(std::u16string_view path, std::string *local)
{
    std::string resolved = "/";
    if (path.size() >= 2 && IsLetter(path[0]) && path[1] == u':') {
        resolved = LocalPathOfDriveLetter(static_cast<char>(path[0]));
        path.remove_prefix(2);
        if (resolved.empty())
            return kErrorPathNotFound;
    }
    if (!path.empty() && !IsSeparator(path[0]))
        return kErrorInvalidName;
    // A drive is never a link itself, whatever it stands for.
    std::error_code error;
    if (path.size() < 2)
        resolved = std::filesystem::weakly_canonical(resolved, error).string();
    if (error)
        return kErrorInvalidName;
    while (!path.empty() && IsSeparator(path.back()))
        path.remove_suffix(1);
    std::u16string stream; // all that counts is whose it is
    if (ntposix::NtName::SplitStream(&path, &stream) != nt::STATUS_SUCCESS)
        return kErrorInvalidName;
    while (!path.empty()) {
        size_t end = 0;
        while (end < path.size() && !IsSeparator(path[end]))
            ++end;
        const std::u16string_view component = path.substr(0, end);
        path.remove_prefix(end < path.size() ? end + 1 : end);
        if (component.empty())
            continue;
        std::string name;
        if (!PosixNameFromNt(component, name))
            return kErrorInvalidName;
        resolved = ntposix::JoinPath(resolved, name);
    }
    *local = ntposix::SpellingOf(resolved);
    return kErrorSuccess;
}

constexpr std::string_view kRemoteTypes[] = {
    "9p",
    "afs",
    "ceph",
    "cifs",
    "coda",
    "davfs",
    "fuse.davfs2",
    "fuse.gvfsd-fuse",
    "fuse.glusterfs",
    "fuse.rclone",
    "fuse.s3fs",
    "fuse.sshfs",
    "lustre",
    "ncpfs",
    "nfs",
    "nfs4",
    "smb3",
    "smbfs",
};

DriveType TypeOfMount(const Mount &mount)
{
    if (std::find(std::begin(kRemoteTypes), std::end(kRemoteTypes), mount.type) != std::end(kRemoteTypes))
        return kDriveRemote;
    if (mount.type == "tmpfs" || mount.type == "ramfs")
        return kDriveRamDisk;
    const dev_t device = BlockDeviceOfMount(mount);
    const std::optional<BlockDevice> block = device == 0 ? std::nullopt : FindBlockDevice(device);
    if (block && block->isOptical)
        return kDriveCdRom;
    return block && block->isRemovable ? kDriveRemovable : kDriveFixed;
}

// What a path says of itself, its last component not followed.
uint32_t Look(const std::u16string &path, std::string &local, struct stat &facts)
{
    const uint32_t error = ResolveLocalPath(path, &local);
    if (error != kErrorSuccess)
        return error;
    return lstat(local.c_str(), &facts) == 0 ? kErrorSuccess : LastSystemError();
}

bool FindFolder(const std::u16string &path, struct stat &facts)
{
    std::string local;
    return ResolveLocalPath(path, &local) == kErrorSuccess && stat(local.c_str(), &facts) == 0 &&
           S_ISDIR(facts.st_mode);
}

} // namespace

DriveType DriveTypeOfLetter(char letter)
{
    const std::string path = LocalPathOfDriveLetter(letter);
    struct stat facts {};
    if (path.empty() || stat(path.c_str(), &facts) != 0 || !S_ISDIR(facts.st_mode))
        return kDriveNoRootDir;
    const std::shared_ptr<const MountTable> mounts = MountTable::Current();
    const Mount *mount = mounts->Holding(path);
    return mount ? TypeOfMount(*mount) : kDriveUnknown;
}

bool IsLocalSeparator(char c)
{
    return c == '/' || c == '\\';
}

char LocalSeparator()
{
    return '/';
}

bool IsAbsoluteLocalPath(const std::u16string &path)
{
    return path.starts_with(u'/');
}

bool FreeSpaceOfFolder(const std::string &folder, uint64_t &bytes)
{
    std::u16string wide;
    std::string local;
    struct statvfs facts {};
    if (!Utf8ToUtf16(folder, wide) || ResolveLocalPath(wide, &local) != kErrorSuccess ||
        statvfs(local.c_str(), &facts) != 0)
        return false;
    bytes = static_cast<uint64_t>(facts.f_bavail) * facts.f_frsize;
    return true;
}

uint32_t MountPointOfPath(const std::u16string &path, std::u16string &mountPoint)
{
    std::string local;
    const uint32_t error = ResolveLocalPath(path, &local);
    if (error != kErrorSuccess)
        return error;
    const std::shared_ptr<const MountTable> mounts = MountTable::Current();
    const Mount *mount = mounts->Holding(local);
    // What doesn't exist yet comes to be in the nearest folder that does.
    while (!mount && local.size() > 1) {
        local.resize(std::max<size_t>(local.rfind('/'), 1));
        mount = mounts->Holding(local);
    }
    if (!mount)
        return kErrorPathNotFound;
    mountPoint = NtPathFromPosix(mount->target);
    return kErrorSuccess;
}

uint32_t VolumeNameOfMountPoint(const std::u16string &mountPoint, std::u16string &name)
{
    std::string local;
    const uint32_t error = ResolveLocalPath(mountPoint, &local);
    if (error != kErrorSuccess)
        return error;
    const std::shared_ptr<const MountTable> mounts = MountTable::Current();
    const Mount *mount = mounts->At(local);
    const dev_t device = mount ? BlockDeviceOfMount(*mount) : 0;
    if (device == 0)
        return mount ? kErrorNotSupported : kErrorInvalidName; // nothing of disks behind it
    // Device numbers are used again for the next device that is plugged in; the disk's sequence number isn't.
    const std::optional<BlockDevice> block = FindBlockDevice(device);
    const std::string text = "/dev/block/" + std::to_string(major(device)) + ':' +
                             std::to_string(minor(device)) + '#' +
                             std::to_string(block ? block->sequence : 0) + '/';
    name.assign(text.begin(), text.end());
    return kErrorSuccess;
}

bool IsSameFolder(const std::u16string &a, const std::u16string &b)
{
    struct stat factsOfA {};
    struct stat factsOfB {};
    return FindFolder(a, factsOfA) && FindFolder(b, factsOfB) && factsOfA.st_dev == factsOfB.st_dev &&
           factsOfA.st_ino == factsOfB.st_ino;
}

uint32_t QueryLinkKind(const std::u16string &path, LinkKind &kind)
{
    std::string local;
    struct stat facts {};
    kind = LinkKind::Missing;
    const uint32_t error = Look(path, local, facts);
    if (error != kErrorSuccess)
        return error;
    if (S_ISLNK(facts.st_mode))
        kind = LinkKind::SymbolicLink;
    else
        kind = S_ISDIR(facts.st_mode) ? LinkKind::Directory : LinkKind::File;
    return kErrorSuccess;
}

uint32_t ReadLinkTarget(const std::u16string &link, std::u16string &target)
{
    std::string local;
    const uint32_t error = ResolveLocalPath(link, &local);
    if (error != kErrorSuccess)
        return error;
    char text[PATH_MAX];
    const ssize_t length = readlink(local.c_str(), text, sizeof(text));
    if (length < 0)
        return LastSystemError();
    target = NtPathFromPosix(std::string_view(text, static_cast<size_t>(length)));
    // Its root is written as local paths are, since a backslash first would be no local root elsewhere.
    std::replace(target.begin(), target.end(), u'\\', u'/');
    return kErrorSuccess;
}

bool LocalNamesEqual(std::string_view a, std::string_view b)
{
    return a == b;
}

std::string PathInSharedForm(const std::string &localPath)
{
    std::string all;
    size_t begin = 0;
    for (size_t end = 0; end != std::string::npos; begin = end + 1) {
        end = localPath.find('/', begin);
        const std::string component = localPath.substr(begin, end == std::string::npos ? end : end - begin);
        std::string mapped;
        if (!Utf16ToUtf8(NtNameFromPosix(component), mapped))
            mapped = component;
        all += mapped;
        if (end != std::string::npos)
            all += '/';
    }
    return all;
}

} // namespace fodr::platform
