#include "ntposix/DirectoryIndexes.h"
#include "ntposix/FileFacts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/statfs.h>

namespace fodr::ntposix {

namespace {

// Time stamps of some file systems have steps of two seconds.
constexpr int64_t kStillFor = 2'500'000'000;

int64_t Nanoseconds(int64_t seconds, int64_t nanoseconds)
{
    return seconds * 1'000'000'000 + nanoseconds;
}

// False when the directory can't be looked at.
bool StampOf(int directory, DirectoryStamp *stamp)
{
    struct stat stat;
    if (fstat(directory, &stat) != 0)
        return false;
    stamp->modified = Nanoseconds(stat.st_mtim.tv_sec, stat.st_mtim.tv_nsec);
    stamp->changed = Nanoseconds(stat.st_ctim.tv_sec, stat.st_ctim.tv_nsec);
    return true;
}

bool StandsStill(const DirectoryStamp &stamp)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return Nanoseconds(now.tv_sec, now.tv_nsec) - std::max(stamp.modified, stamp.changed) > kStillFor;
}

// File systems that only this kernel changes, so that inotify hears of everything.
bool ChangesAreTold(int directory)
{
    constexpr std::array<int64_t, 14> kLocal = {
        0xEF53,     // ext2, ext3, ext4
        0x58465342, // xfs
        0x9123683E, // btrfs
        0x01021994, // tmpfs
        0x858458F6, // ramfs
        0xF2F52010, // f2fs
        0x2FC12FC1, // zfs
        0xCA451A4E, // bcachefs
        0x794C7630, // overlayfs
        0x4D44,     // vfat
        0x2011BAB0, // exfat
        0x7366746E, // ntfs3
        0x9660,     // iso9660
        0x15013346, // udf
    };
    struct statfs volume;
    return fstatfs(directory, &volume) == 0 &&
           std::find(kLocal.begin(), kLocal.end(), static_cast<int64_t>(volume.f_type)) != kLocal.end();
}

} // namespace

DirectoryLease::DirectoryLease(int directoryFd) NO_THREAD_SAFETY_ANALYSIS : directory(directoryFd)
{
    FileFacts facts;
    error = StatDescriptor(directory, &facts);
    if (error != 0)
        return;
    index = DirectoryIndexes::Instance().Get(facts.key);
    index->lock.lock();
    Refresh();
}

DirectoryLease::~DirectoryLease() NO_THREAD_SAFETY_ANALYSIS
{
    if (index)
        index->lock.unlock();
}

std::optional<std::string> DirectoryLease::Find(std::string_view name) const
{
    return index ? index->Find(name) : std::nullopt;
}

void DirectoryLease::Refresh()
{
    const auto changes = DirectoryIndexes::Instance().TakeChanges(index->key);
    if (index->built && index->watched && changes) {
        index->Apply(*changes);
        return;
    }
    DirectoryStamp stamp;
    const bool unchanged =
        index->built && !index->watched && changes && StampOf(directory, &stamp) && stamp == index->stamp;
    if (!unchanged)
        Rebuild();
}

// The watch and the stamp come before the scan: what changes meanwhile is told, or shows, afterwards.
void DirectoryLease::Rebuild()
{
    DirectoryIndexes &indexes = DirectoryIndexes::Instance();
    index->watched = ChangesAreTold(directory) && indexes.Watch(index->key, directory);
    const bool stamped = StampOf(directory, &index->stamp);
    error = index->Scan(directory);
    index->built = error == 0 && (index->watched || (stamped && StandsStill(index->stamp)));
    if (error == EACCES || error == EPERM)
        error = 0;
    indexes.NoteSize(index->key, index->Size());
}

} // namespace fodr::ntposix
