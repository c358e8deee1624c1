#include "ntposix/FileMetadata.h"

#include "ntposix/Lookup.h"
#include "platform/Nt.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

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

void Fill(const struct statx &stat, FileMetadata *facts)
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

int Stat(int directory, const char *name, int flags, FileMetadata *facts)
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

int StatDescriptor(int fd, FileMetadata *facts)
{
    return Stat(fd, "", AT_EMPTY_PATH, facts);
}

int StatAt(int directory, const char *name, Links links, FileMetadata *facts)
{
    return Stat(directory, name, links == Links::kDontFollow ? AT_SYMLINK_NOFOLLOW : 0, facts);
}

bool IsRemoved(int fd)
{
    struct stat stat;
    return fstat(fd, &stat) == 0 && stat.st_nlink == 0;
}

FileMetadata FactsOfType(mode_t type)
{
    FileMetadata facts;
    facts.kind = KindOf(type);
    facts.mode = type;
    if (type != 0)
        facts.attributes = AttributesOf(facts.kind, S_IWUSR);
    return facts;
}

void ResolveId(std::optional<dev_t> rootDevice, FileMetadata *facts)
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

namespace {

static_assert(kDosAttributes == (nt::FILE_ATTRIBUTE_HIDDEN | nt::FILE_ATTRIBUTE_SYSTEM));

constexpr const char *kName = "user.DOSATTRIB";
constexpr size_t kLongest = 256;

// An empty text, then a record. Its versions 3 and 4 have the attributes at one place. Older tools kept the
// attributes as a text, "0x22".
struct Record {
    uint8_t Text[2];
    uint16_t Version;
    uint16_t Level;
    uint16_t Padding;
    uint32_t Fields; // which of the others count
    uint32_t Attributes;
    uint64_t CreationTime; // of version 3
};
static_assert(sizeof(Record) == 24 && offsetof(Record, Fields) == 8 && offsetof(Record, Attributes) == 12);

constexpr uint16_t kVersion = 3;
constexpr uint32_t kHasAttributes = 0x1;
constexpr uint32_t kHasCreationTime = 0x10;

struct Kept {
    std::array<char, kLongest + 1> bytes{}; // with a zero behind them
    size_t size = 0;
    bool isRecord = false;
    uint32_t attributes = 0;
};

// False when there is none, or none that is understood.
bool Read(const std::string &path, Kept *kept)
{
    const ssize_t size = getxattr(path.c_str(), kName, kept->bytes.data(), kLongest);
    if (size <= 0)
        return false;
    kept->size = static_cast<size_t>(size);
    if (kept->bytes[0] == '0') {
        kept->attributes = static_cast<uint32_t>(strtoul(kept->bytes.data(), nullptr, 16));
        return true;
    }
    Record record{};
    memcpy(&record, kept->bytes.data(), std::min(kept->size, sizeof(record)));
    kept->isRecord = record.Text[0] == 0 && (record.Version == kVersion || record.Version == kVersion + 1) &&
                     kept->size >= offsetof(Record, CreationTime) && (record.Fields & kHasAttributes) != 0;
    kept->attributes = kept->isRecord ? record.Attributes : 0;
    return kept->isRecord;
}

} // namespace

uint32_t ReadDosAttributes(int fd)
{
    Kept kept;
    return Read(DescriptorPath(fd), &kept) ? kept.attributes & kDosAttributes : 0;
}

int WriteDosAttributes(int fd, const FileMetadata &facts, uint32_t attributes)
{
    const std::string path = DescriptorPath(fd);
    Kept kept;
    const bool any = Read(path, &kept);
    if ((kept.attributes & kDosAttributes) == (attributes & kDosAttributes))
        return 0;
    if (kept.isRecord) {
        const uint32_t wanted = (kept.attributes & ~kDosAttributes) | (attributes & kDosAttributes);
        memcpy(kept.bytes.data() + offsetof(Record, Attributes), &wanted, sizeof(wanted));
    } else {
        const uint32_t others = any ? kept.attributes & ~kDosAttributes : facts.attributes;
        const Record record = {.Text = {},
                               .Version = kVersion,
                               .Level = kVersion,
                               .Padding = 0,
                               .Fields = kHasAttributes | kHasCreationTime,
                               .Attributes = others | (attributes & kDosAttributes),
                               .CreationTime = static_cast<uint64_t>(facts.creationTime)};
        kept.size = sizeof(record);
        memcpy(kept.bytes.data(), &record, sizeof(record));
    }
    if (setxattr(path.c_str(), kName, kept.bytes.data(), kept.size, 0) == 0 || errno == ENOTSUP)
        return 0;
    return errno;
}

int SetMode(int fd, mode_t mode)
{
    if (fchmod(fd, mode) == 0)
        return 0;
    if (errno != EBADF) // which an O_PATH descriptor gives
        return errno;
    return chmod(DescriptorPath(fd).c_str(), mode) == 0 ? 0 : errno;
}

mode_t WithoutSetId(mode_t mode, bool directory)
{
    return mode & ~static_cast<mode_t>(directory ? S_ISUID : S_ISUID | S_ISGID);
}

int WidenMode(int fd, mode_t mode)
{
    struct stat stat;
    if (fstat(fd, &stat) != 0)
        return errno;
    const mode_t wanted = (stat.st_mode & 07000) | WithoutSetId(mode & 07777, S_ISDIR(stat.st_mode));
    return wanted == (stat.st_mode & 07777) ? 0 : SetMode(fd, wanted);
}

// The owner first: a change of it takes set-id bits away.
int ChangeMode(int fd, const nt::FODR_MODE_CHANGE &change)
{
    constexpr uint32_t kOwners = nt::FODR_SET_OWNER | nt::FODR_SET_GROUP;
    if ((change.Fields & ~(kOwners | nt::FODR_SET_MODE)) != 0 || (change.Mode & ~nt::FODR_MODE_BITS) != 0)
        return EINVAL;
    struct stat present;
    if (fstat(fd, &present) != 0)
        return errno;
    const mode_t setId = change.Mode & ~WithoutSetId(change.Mode, S_ISDIR(present.st_mode));
    const mode_t kept = change.Fields & kOwners ? 0 : present.st_mode;
    if ((change.Fields & nt::FODR_SET_MODE) != 0 && (setId & ~kept) != 0)
        return EPERM;
    const auto chosen = [&](uint32_t field, uint32_t id) { return change.Fields & field ? id : UINT32_MAX; };
    if ((change.Fields & kOwners) != 0 &&
        fchownat(fd, "", chosen(nt::FODR_SET_OWNER, change.Owner), chosen(nt::FODR_SET_GROUP, change.Group),
                 AT_EMPTY_PATH) != 0)
        return errno;
    return change.Fields & nt::FODR_SET_MODE ? SetMode(fd, change.Mode) : 0;
}

} // namespace fodr::ntposix
