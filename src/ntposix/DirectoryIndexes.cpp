#include "ntposix/DirectoryIndexes.h"

#include "ntposix/FileFacts.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>

namespace fodr::ntposix {

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

} // namespace fodr::ntposix
