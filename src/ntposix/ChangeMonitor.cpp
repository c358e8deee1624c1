#include "ntposix/ChangeMonitor.h"

#include "ntposix/ChangeWatch.h"
#include "ntposix/DirectoryScan.h"
#include "ntposix/FileMetadata.h"
#include "ntposix/HandleTable.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace fodr::ntposix {

namespace {

// Which folders there are in a tree.
constexpr uint32_t kTreeEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;

Mutex runningLock;
std::weak_ptr<ChangeMonitor> running GUARDED_BY(runningLock);

std::string PathOf(int directory, const std::string &below)
{
    return "/proc/self/fd/" + std::to_string(directory) + (below.empty() ? "" : "/") + below;
}

bool IsFolder(int directory, const DirentReader::Entry &entry)
{
    if (entry.type != DT_UNKNOWN)
        return entry.type == DT_DIR;
    struct stat facts;
    return fstatat(directory, entry.name, &facts, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(facts.st_mode);
}

// Whether the folder below a watch holds anything; its folders are appended to `pending`. A folder that is
// gone or closed to us has nothing to see; `error` is what else keeps it from being read.
bool ReadFolder(int directory, const std::string &path, std::vector<std::string> *pending, int *error)
{
    const Fd folder(openat(directory, path.empty() ? "." : path.c_str(),
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    *error = 0;
    if (!folder)
        return false;
    DirentReader reader(folder.Get());
    bool any = false;
    while (const DirentReader::Entry *entry = reader.Next(error)) {
        any = true;
        if (IsFolder(folder.Get(), *entry))
            pending->push_back((path.empty() ? "" : path + "/") + entry->name);
    }
    return any;
}

nt::NTSTATUS StatusOfWatchErrno(int error)
{
    switch (error) {
    case 0:
        return nt::STATUS_SUCCESS;
    case ECANCELED:
        return nt::STATUS_CANCELLED;
    case EACCES:
    case EPERM:
        return nt::STATUS_ACCESS_DENIED;
    case EIO:
        return nt::STATUS_IO_DEVICE_ERROR;
    default: // the limits of watches, descriptors and memory
        return nt::STATUS_INSUFFICIENT_RESOURCES;
    }
}

} // namespace

std::shared_ptr<ChangeMonitor> ChangeMonitor::Running()
{
    const MutexLock guard(runningLock);
    return running.lock();
}

std::shared_ptr<ChangeMonitor> ChangeMonitor::Get()
{
    const MutexLock guard(runningLock);
    std::shared_ptr<ChangeMonitor> monitor = running.lock();
    if (monitor)
        return monitor;
    Fd inotifyFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    Fd wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!inotifyFd || !wakeFd)
        return nullptr;
    monitor.reset(new ChangeMonitor(std::move(inotifyFd), std::move(wakeFd)));
    // Signals are the host's business, not this thread's.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        monitor->reader = std::thread(&ChangeMonitor::Run, monitor.get());
    } catch (const std::system_error &) {
        monitor.reset();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    running = monitor;
    return monitor;
}

ChangeMonitor::ChangeMonitor(Fd inotifyFd, Fd wakeFd) : inotify(std::move(inotifyFd)), wake(std::move(wakeFd))
{}

ChangeMonitor::~ChangeMonitor()
{
    if (!reader.joinable())
        return;
    ending.store(true);
    Wake();
    reader.join();
}

void ChangeMonitor::Wake() const
{
    eventfd_write(wake.Get(), 1);
}

nt::NTSTATUS ChangeMonitor::Add(const std::shared_ptr<ChangeWatch> &watch, BlockedCall &call)
{
    EntryPointer entry;
    {
        const MutexLock guard(lock);
        if (watch->tree && JoinTree(watch))
            return nt::STATUS_SUCCESS;
        Fd own(watch->tree ? fcntl(watch->directory, F_DUPFD_CLOEXEC, 0) : -1);
        if (watch->tree && (!own || !MayKeepDescriptor(own.Get())))
            return nt::STATUS_INSUFFICIENT_RESOURCES;
        entry = std::make_shared<Entry>(*watch, std::move(own));
        entry->watches.push_back(watch);
        entries[watch.get()] = entry;
        ++blind; // until AddAbove
        const int error = AddFolder(*entry, "");
        if (error != 0)
            return StatusOfWatchErrno(error);
        AddAbove(*entry);
        if (IsRemoved(entry->directory)) // before there was a watch to tell it
            watch->Fail(nt::STATUS_DELETE_PENDING);
        if (blind.load() != 0)
            Wake();
    }
    if (!watch->tree)
        return nt::STATUS_SUCCESS;
    const nt::NTSTATUS status = StatusOfWatchErrno(AddFolders(entry, "", &call));
    const MutexLock guard(lock);
    if (status == nt::STATUS_SUCCESS && !entry->incomplete)
        trees.emplace(entry->KeyOfTree(), entry); // unless another was faster
    return status;
}

bool ChangeMonitor::JoinTree(const std::shared_ptr<ChangeWatch> &watch)
{
    const auto found = trees.find({watch->key.device, watch->key.inode, watch->filter});
    if (found == trees.end())
        return false;
    found->second->watches.push_back(watch);
    entries[watch.get()] = found->second;
    if (IsRemoved(found->second->directory))
        watch->Fail(nt::STATUS_DELETE_PENDING);
    return true;
}

void ChangeMonitor::CloseTree(Entry &entry)
{
    entry.incomplete = true;
    const auto found = trees.find(entry.KeyOfTree());
    if (found != trees.end() && found->second.get() == &entry)
        trees.erase(found);
}

void ChangeMonitor::Remove(ChangeWatch *watch)
{
    const MutexLock guard(lock);
    const auto found = entries.find(watch);
    if (found == entries.end())
        return;
    const EntryPointer entry = found->second;
    entries.erase(found);
    std::erase_if(entry->watches, [watch](const auto &each) { return each.get() == watch; });
    if (!entry->watches.empty())
        return;
    CloseTree(*entry);
    DropFolders(*entry, "");
    DropAbove(*entry);
    --blind;
}

void ChangeMonitor::Report(const Entry &entry, uint32_t changes)
{
    for (const auto &watch : entry.watches)
        watch->Report(changes);
}

void ChangeMonitor::Fail(const Entry &entry, nt::NTSTATUS status)
{
    for (const auto &watch : entry.watches)
        watch->Fail(status);
}

void ChangeMonitor::FailDirectory(FileKey key, nt::NTSTATUS status)
{
    const MutexLock guard(lock);
    for (auto &[watch, entry] : entries) {
        if (entry->key == key)
            Fail(*entry, status);
    }
}

// Watches the folder and, in a tree, all folders below it. 0 or the errno of what keeps changes from being
// seen.
int ChangeMonitor::AddFolders(const EntryPointer &entry, std::string path, BlockedCall *call)
{
    std::vector<std::string> pending{std::move(path)};
    while (!pending.empty()) {
        if (call && call->HasEnded())
            return ECANCELED;
        const std::string folder = std::move(pending.back());
        pending.pop_back();
        {
            const MutexLock guard(lock);
            if (entry->watches.empty())
                return 0;
            // What vanished or is closed to us is no reason to miss the rest.
            const int error = AddFolder(*entry, folder);
            if (error == ENOSPC || error == ENOMEM)
                return error;
            if (error != 0)
                continue;
        }
        // No event reports what came into a folder before it was watched.
        int error;
        if (ReadFolder(entry->directory, folder, &pending, &error) && !call) {
            const MutexLock guard(lock);
            Report(*entry, kEveryChange);
        }
        if (error != 0)
            return error;
    }
    return 0;
}

int ChangeMonitor::AddFolder(Entry &entry, const std::string &path)
{
    uint32_t mask = EventsOfFilter(entry.filter) | IN_ONLYDIR | IN_MASK_ADD;
    if (entry.tree)
        mask |= kTreeEvents;
    if (!path.empty())
        mask |= IN_DONT_FOLLOW;
    else
        mask |= IN_MOVE_SELF;
    if (folderCount >= kMostFolders)
        return ENOSPC;
    const int descriptor = inotify_add_watch(inotify.Get(), PathOf(entry.directory, path).c_str(), mask);
    if (descriptor < 0)
        return errno;
    const auto found = entry.folders.find(path);
    if (found != entry.folders.end()) {
        if (found->second == descriptor)
            return 0;
        DropFolders(entry, path);
    }
    const auto added = entry.folders.emplace(path, descriptor).first;
    members[descriptor].insert({&entry, &added->first});
    ++folderCount;
    return 0;
}

// An open directory's own watch doesn't tell that it was removed, or replaced by another one; the folder
// above does. Which one that is changes when the directory is moved.
void ChangeMonitor::AddAbove(Entry &entry)
{
    const std::string path = PathOf(entry.directory, "..");
    const int above =
        inotify_add_watch(inotify.Get(), path.c_str(), IN_DELETE | IN_MOVED_TO | IN_ONLYDIR | IN_MASK_ADD);
    if (above != entry.above) {
        DropAbove(entry);
        entry.above = above;
        if (above >= 0) {
            members[above].insert({&entry, nullptr});
            --blind;
        }
    }
    if (IsRemoved(entry.directory)) // before the folder above was watched
        Fail(entry, nt::STATUS_DELETE_PENDING);
}

void ChangeMonitor::DropAbove(Entry &entry)
{
    if (entry.above < 0)
        return;
    Leave(std::exchange(entry.above, -1), {&entry, nullptr});
    ++blind;
}

// Of directories whose folder above can't be watched.
void ChangeMonitor::FailRemoved()
{
    for (auto &[watch, entry] : entries) {
        if (entry->above < 0 && IsRemoved(entry->directory))
            Fail(*entry, nt::STATUS_DELETE_PENDING);
    }
}

void ChangeMonitor::DropFolders(Entry &entry, const std::string &path)
{
    const auto self = entry.folders.find(path);
    if (self != entry.folders.end())
        DropFolder(entry, self);
    const std::string prefix = path.empty() ? path : path + "/";
    auto below = entry.folders.lower_bound(prefix);
    while (below != entry.folders.end() && below->first.starts_with(prefix))
        below = DropFolder(entry, below);
}

ChangeMonitor::Folders::iterator ChangeMonitor::DropFolder(Entry &entry, Folders::iterator folder)
{
    Leave(folder->second, {&entry, &folder->first});
    --folderCount;
    return entry.folders.erase(folder);
}

void ChangeMonitor::Leave(int descriptor, const Member &member)
{
    const auto found = members.find(descriptor);
    if (found == members.end())
        return;
    found->second.erase(member);
    if (found->second.empty()) {
        members.erase(found);
        inotify_rm_watch(inotify.Get(), descriptor);
    }
}

} // namespace fodr::ntposix
