#include "ntposix/FileFacts.h"

#include "platform/Nt.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <sys/sysmacros.h>

namespace fodr::ntposix {

namespace {

constexpr int64_t kSecondsTo1970 = 11'644'473'600;
constexpr int64_t kStepsPerSecond = 10'000'000;
constexpr int64_t kLatestSecond = INT64_MAX / kStepsPerSecond - kSecondsTo1970 - 1;
constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;

int64_t FileTimeOf(const statx_timestamp &time)
{
    return ntposix::FileTimeOf(time.tv_sec, time.tv_nsec);
}

FileKind KindOf(mode_t mode)
{
    if (S_ISREG(mode))
        return FileKind::kFile;
    if (S_ISDIR(mode))
        return FileKind::kDirectory;
    return S_ISLNK(mode) ? FileKind::kLink : FileKind::kSpecial;
}

// A directory's write bit isn't a read-only attribute: under NT that attribute never kept anyone from
// creating files in a directory.
uint32_t AttributesOf(FileKind kind, mode_t mode)
{
    switch (kind) {
    case FileKind::kDirectory:
        return nt::FILE_ATTRIBUTE_DIRECTORY;
    case FileKind::kLink:
        return nt::FILE_ATTRIBUTE_REPARSE_POINT;
    case FileKind::kSpecial:
        return nt::FILE_ATTRIBUTE_SYSTEM;
    case FileKind::kFile:
        break;
    }
    return nt::FILE_ATTRIBUTE_ARCHIVE | (mode & S_IWUSR ? 0 : nt::FILE_ATTRIBUTE_READONLY);
}

// Spreads every bit of the value over all of them.
uint64_t Mixed(uint64_t value)
{
    value = (value ^ (value >> 33)) * 0xFF51AFD7ED558CCD;
    value = (value ^ (value >> 33)) * 0xC4CEB9FE1A85EC53;
    return value ^ (value >> 33);
}

uint64_t IdOf(FileKey key, int64_t birthTime, bool foreign)
{
    constexpr int kInodeBits = 48;
    constexpr uint64_t kInode = (uint64_t{1} << kInodeBits) - 1;
    constexpr uint64_t kHash = 0x7FFF;
    const uint64_t beyond = key.inode >> kInodeBits;
    uint64_t hash = Mixed(static_cast<uint64_t>(birthTime) ^ Mixed(beyond));
    if (foreign)
        hash = Mixed(hash ^ Mixed(key.device));
    const uint64_t id = (key.inode & kInode) | (hash & kHash) << kInodeBits | uint64_t{foreign} << 63;
    return id ? id : uint64_t{1} << kInodeBits;
}

void Fill(const struct statx &stat, FileFacts *facts)
{
    facts->key = {makedev(stat.stx_dev_major, stat.stx_dev_minor), stat.stx_ino};
    facts->birthTime = stat.stx_mask & STATX_BTIME
                           ? stat.stx_btime.tv_sec * 1'000'000'000 + int64_t{stat.stx_btime.tv_nsec}
                           : 0;
    facts->id = IdOf(facts->key, facts->birthTime, false);
    facts->kind = KindOf(stat.stx_mode);
    facts->mode = stat.stx_mode;
    facts->owner = stat.stx_uid;
    facts->group = stat.stx_gid;
    facts->node = makedev(stat.stx_rdev_major, stat.stx_rdev_minor);
    facts->links = facts->kind == FileKind::kDirectory ? 1 : stat.stx_nlink;
    const bool sized = facts->kind == FileKind::kFile || facts->kind == FileKind::kLink;
    facts->endOfFile = sized ? static_cast<int64_t>(stat.stx_size) : 0;
    facts->allocation = sized ? static_cast<int64_t>(stat.stx_blocks) * 512 : 0;
    facts->lastAccessTime = FileTimeOf(stat.stx_atime);
    facts->lastWriteTime = FileTimeOf(stat.stx_mtime);
    facts->changeTime = FileTimeOf(stat.stx_ctime);
    facts->creationTime = stat.stx_mask & STATX_BTIME ? FileTimeOf(stat.stx_btime)
                                                      : std::min(facts->lastWriteTime, facts->changeTime);
    facts->attributes = AttributesOf(facts->kind, stat.stx_mode);
}

int Stat(int directory, const char *name, int flags, FileFacts *facts)
{
    struct statx stat;
    if (statx(directory, name, flags | AT_STATX_SYNC_AS_STAT | AT_NO_AUTOMOUNT, kWanted, &stat) != 0)
        return errno;
    Fill(stat, facts);
    return 0;
}

} // namespace

int64_t FileTimeOf(int64_t seconds, uint32_t nanoseconds)
{
    const int64_t bounded = std::clamp(seconds, -kSecondsTo1970, kLatestSecond);
    return (bounded + kSecondsTo1970) * kStepsPerSecond + nanoseconds / 100;
}

timespec TimespecOf(int64_t fileTime)
{
    const int64_t steps = std::max<int64_t>(fileTime, 0);
    return {.tv_sec = steps / kStepsPerSecond - kSecondsTo1970, .tv_nsec = steps % kStepsPerSecond * 100};
}

int StatDescriptor(int fd, FileFacts *facts)
{
    return Stat(fd, "", AT_EMPTY_PATH, facts);
}

int StatAt(int directory, const char *name, Links links, FileFacts *facts)
{
    return Stat(directory, name, links == Links::kDontFollow ? AT_SYMLINK_NOFOLLOW : 0, facts);
}

bool IsRemoved(int fd)
{
    struct stat stat;
    return fstat(fd, &stat) == 0 && stat.st_nlink == 0;
}

FileFacts FactsOfType(mode_t type)
{
    FileFacts facts;
    facts.kind = KindOf(type);
    facts.mode = type;
    if (type != 0)
        facts.attributes = AttributesOf(facts.kind, S_IWUSR);
    return facts;
}

void ResolveId(std::optional<dev_t> rootDevice, FileFacts *facts)
{
    if (rootDevice && *rootDevice != facts->key.device && facts->id != 0)
        facts->id = IdOf(facts->key, facts->birthTime, true);
}

uint32_t HiddenByName(std::string_view leaf)
{
    return leaf.size() > 1 && leaf[0] == '.' && leaf != ".." ? nt::FILE_ATTRIBUTE_HIDDEN : 0;
}

uint32_t CompleteAttributes(uint32_t attributes)
{
    return attributes ? attributes : nt::FILE_ATTRIBUTE_NORMAL;
}

} // namespace fodr::ntposix
