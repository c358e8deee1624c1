#include "ntposix/DirectoryIndex.h"

#include "lib/misc/Fd.h"
#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/NameMapping.h"
#include "ntposix/FileMetadata.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/inotify.h>
#include <sys/statfs.h>

namespace fodr::ntposix {

namespace {

// Most names are ASCII that stands for itself; those are folded byte by byte.
bool IsPlain(std::string_view name)
{
    return std::all_of(name.begin(), name.end(), [](char c) {
        return c >= 0x20 && c < 0x7F && std::string_view("\"*<>?|:\\").find(c) == std::string_view::npos;
    });
}

uint64_t Mix(uint64_t hash, char16_t unit)
{
    return (hash ^ FoldUnit(unit)) * 0x100000001B3u;
}

constexpr uint64_t kHashStart = 0xCBF29CE484222325u;

} // namespace

uint64_t FoldedHash(std::string_view name)
{
    uint64_t hash = kHashStart;
    if (IsPlain(name)) {
        for (char c : name)
            hash = Mix(hash, static_cast<unsigned char>(c));
        return hash;
    }
    for (char16_t unit : NtNameFromPosix(name))
        hash = Mix(hash, unit);
    return hash;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b)
{
    return a == b || EqualsFolded(NtNameFromPosix(a), NtNameFromPosix(b));
}

std::optional<std::string> DirectoryIndex::Find(std::string_view name) const
{
    const auto [first, last] = names.equal_range(FoldedHash(name));
    const std::string *best = nullptr;
    for (auto candidate = first; candidate != last; ++candidate) {
        const std::string &present = candidate->second;
        if (present == name)
            return present;
        if (EqualsIgnoringCase(present, name) && (!best || present < *best))
            best = &present;
    }
    return best ? std::optional(*best) : std::nullopt;
}

// Changes may tell again what a scan has seen already; the last word on a name is right all the same.
void DirectoryIndex::Apply(const std::vector<NameChange> &changes)
{
    for (const NameChange &change : changes) {
        Remove(change.name);
        if (change.added)
            Add(change.name);
    }
}

int DirectoryIndex::Scan(int directory)
{
    Clear();
    Fd readable(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable)
        return errno;
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(fdopendir(readable.Get()), &closedir);
    if (!listing)
        return errno;
    readable.Release();
    for (errno = 0; const dirent *entry = readdir(listing.get()); errno = 0) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            Add(name);
    }
    const int error = errno;
    if (error != 0)
        Clear();
    return error;
}

void DirectoryIndex::Clear()
{
    names.clear();
    built = false;
}

void DirectoryIndex::Add(std::string_view name)
{
    names.emplace(FoldedHash(name), name);
}

void DirectoryIndex::Remove(std::string_view name)
{
    const auto [first, last] = names.equal_range(FoldedHash(name));
    const auto found = std::find_if(first, last, [name](const auto &entry) { return entry.second == name; });
    if (found != last)
        names.erase(found);
}

namespace {

constexpr size_t kMostDirectories = 256;
constexpr size_t kMostNames = 2'000'000;
constexpr size_t kMostWaitingChanges = 100'000; // of one directory; then a scan is cheaper
constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;

} // namespace

DirectoryIndexes &DirectoryIndexes::Instance()
{
    static DirectoryIndexes indexes;
    return indexes;
}

std::shared_ptr<DirectoryIndex> DirectoryIndexes::Get(FileKey key)
{
    const MutexLock guard(lock);
    const auto found = entries.find(key);
    if (found != entries.end()) {
        found->second.lastUse = ++uses;
        return found->second.index;
    }
    if (entries.size() >= kMostDirectories)
        EvictOne();
    Entry &entry = entries[key];
    entry.index = std::make_shared<DirectoryIndex>(key);
    entry.lastUse = ++uses;
    return entry.index;
}

std::optional<std::vector<NameChange>> DirectoryIndexes::TakeChanges(FileKey key)
{
    const MutexLock guard(lock);
    if (inotify && !ReadEvents()) {
        for (auto &[other, entry] : entries)
            entry.missed = true;
    }
    const auto found = entries.find(key);
    if (found == entries.end())
        return std::nullopt;
    Entry &entry = found->second;
    std::vector<NameChange> changes = std::move(entry.changes);
    entry.changes.clear();
    if (std::exchange(entry.missed, false))
        return std::nullopt;
    return changes;
}

bool DirectoryIndexes::Watch(FileKey key, int directory)
{
    const MutexLock guard(lock);
    if (!inotify)
        inotify = Fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const auto found = entries.find(key);
    if (!inotify || found == entries.end())
        return false;
    if (found->second.watch >= 0)
        return true;
    const std::string path = "/proc/self/fd/" + std::to_string(directory);
    const int watch = inotify_add_watch(inotify.Get(), path.c_str(), kEvents);
    if (watch < 0)
        return false;
    found->second.watch = watch;
    watches[watch] = key;
    return true;
}

void DirectoryIndexes::NoteSize(FileKey key, size_t size)
{
    const MutexLock guard(lock);
    const auto found = entries.find(key);
    if (found == entries.end())
        return;
    names += size - found->second.size;
    found->second.size = size;
    if (names > kMostNames && entries.size() > 1)
        EvictOne();
}

bool DirectoryIndexes::ReadEvents()
{
    alignas(inotify_event) char buffer[16384];
    bool complete = true;
    for (;;) {
        const ssize_t length = read(inotify.Get(), buffer, sizeof(buffer));
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return complete && (length == 0 || errno == EAGAIN);
        complete &= Dispatch(buffer, static_cast<size_t>(length));
    }
}

bool DirectoryIndexes::Dispatch(const char *events, size_t length)
{
    bool complete = true;
    inotify_event event;
    for (size_t at = 0; at < length; at += sizeof(event) + event.len) {
        memcpy(&event, events + at, sizeof(event));
        complete &= (event.mask & IN_Q_OVERFLOW) == 0;
        const auto watch = watches.find(event.wd);
        if (watch == watches.end())
            continue;
        Entry &entry = entries[watch->second];
        if (event.mask & IN_IGNORED) {
            // The directory is gone or its file system unmounted; the watch went by itself.
            entry.missed = true;
            entry.watch = -1;
            watches.erase(watch);
        } else if (entry.changes.size() >= kMostWaitingChanges) {
            entry.missed = true;
        } else if (event.len != 0) {
            entry.changes.push_back(
                {(event.mask & (IN_CREATE | IN_MOVED_TO)) != 0, std::string(events + at + sizeof(event))});
        }
    }
    return complete;
}

// An index that a lease holds stays, or two leases on one directory could last at once.
void DirectoryIndexes::EvictOne()
{
    auto oldest = entries.end();
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        const bool idle = entry->second.index.use_count() == 1;
        if (idle && (oldest == entries.end() || entry->second.lastUse < oldest->second.lastUse))
            oldest = entry;
    }
    if (oldest == entries.end())
        return;
    if (oldest->second.watch >= 0) {
        inotify_rm_watch(inotify.Get(), oldest->second.watch);
        watches.erase(oldest->second.watch);
    }
    names -= oldest->second.size;
    entries.erase(oldest);
}

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
    FileMetadata facts;
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

// The watch and the stamp come before the scan, so that a change during the scan is noticed.
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
