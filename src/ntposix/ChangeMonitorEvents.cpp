// ChangeMonitor: the kernel's events.
#include "ntposix/ChangeMonitor.h"
#include "ntposix/ChangeWatch.h"
#include "ntposix/FileMetadata.h"

#include <poll.h>
#include <pthread.h>

#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <utility>

namespace fodr::ntposix {

namespace {

constexpr uint32_t kAppears = IN_CREATE | IN_MOVED_TO;
constexpr uint32_t kDisappears = IN_DELETE | IN_MOVED_FROM;
// How often directories are looked at of whose removal the kernel doesn't tell.
constexpr int kLookAgainMS = 500;

} // namespace

void ChangeMonitor::Run()
{
    pthread_setname_np(pthread_self(), "fodr-notify");
    pollfd sources[] = {{inotify.Get(), POLLIN, 0}, {wake.Get(), POLLIN, 0}};
    while (!ending.load()) {
        poll(sources, 2, blind.load() != 0 ? kLookAgainMS : -1);
        eventfd_t ignored;
        if (sources[1].revents)
            eventfd_read(wake.Get(), &ignored);
        const MutexLock guard(reading);
        ReadEvents();
    }
}

// The kernel queues an event before the call that makes the change returns, and before a listing can show it.
// (A look-up or a read may show a change whose call still runs.) Events that another thread has read are
// reported once it gives up `reading`.
void ChangeMonitor::Drain()
{
    int ready = 0;
    const bool nothing = ioctl(inotify.Get(), FIONREAD, &ready) == 0 && ready == 0;
    if (nothing && !handling.load() && blind.load() == 0)
        return;
    const MutexLock guard(reading);
    ReadEvents();
}

// As many as there are now: more may come without end.
void ChangeMonitor::ReadEvents()
{
    alignas(inotify_event) char buffer[32 * 1024];
    handling.store(true);
    int ready = 0;
    ioctl(inotify.Get(), FIONREAD, &ready);
    while (ready > 0) {
        const ssize_t got = read(inotify.Get(), buffer, sizeof(buffer));
        if (got <= 0)
            break;
        for (ssize_t at = 0; at < got;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
            Handle(*event);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
        ready -= static_cast<int>(got);
    }
    if (blind.load() != 0) {
        const MutexLock guard(lock);
        FailRemoved();
    }
    handling.store(false);
}

void ChangeMonitor::Handle(const inotify_event &event)
{
    std::vector<NewFolder> added;
    {
        const MutexLock guard(lock);
        if (event.mask & IN_Q_OVERFLOW)
            Overflow(&added);
        const auto found = members.find(event.wd);
        // Handling drops folders, and with them perhaps members that are still to come.
        const std::set<Member> concerned = found != members.end() ? found->second : std::set<Member>();
        for (const Member &member : concerned) {
            if (IsMember(event.wd, member))
                HandleIn(member, event, &added);
        }
        if (event.mask & IN_IGNORED)
            Forget(event.wd);
    }
    for (NewFolder &folder : added) {
        if (AddFolders(folder.entry, std::move(folder.path), nullptr) == 0)
            continue;
        const MutexLock guard(lock);
        CloseTree(*folder.entry);
        Fail(*folder.entry, nt::STATUS_INSUFFICIENT_RESOURCES);
    }
}

bool ChangeMonitor::IsMember(int descriptor, const Member &member) const
{
    const auto found = members.find(descriptor);
    return found != members.end() && found->second.contains(member);
}

// Events were lost: anything may have changed, and any folder appeared.
void ChangeMonitor::Overflow(std::vector<NewFolder> *rescan)
{
    for (auto &[watch, entry] : entries) {
        if (watch != entry->watches.front().get())
            continue; // once an entry
        Report(*entry, kEveryChange);
        if (entry->tree)
            rescan->push_back({entry, ""});
    }
}

void ChangeMonitor::HandleIn(const Member &member, const inotify_event &event, std::vector<NewFolder> *added)
{
    Entry &entry = *member.entry;
    if (!member.path) {
        if (event.mask & IN_ISDIR && event.mask & (IN_DELETE | IN_MOVED_TO) && IsRemoved(entry.directory))
            Fail(entry, nt::STATUS_DELETE_PENDING);
        return;
    }
    if (event.mask & IN_MOVE_SELF && member.path->empty())
        AddAbove(entry);
    if (event.len == 0) // about the folder itself, which is no change in it
        return;
    Report(entry, ChangesOfEvent(event.mask));
    if (!entry.tree || !(event.mask & IN_ISDIR))
        return;
    const std::string path = (member.path->empty() ? "" : *member.path + "/") + event.name;
    if (event.mask & kDisappears)
        DropFolders(entry, path);
    if (event.mask & kAppears)
        added->push_back({entries[entry.watches.front().get()], path});
}

// The kernel ended a watch by itself: its folder is gone.
void ChangeMonitor::Forget(int descriptor)
{
    const auto found = members.find(descriptor);
    if (found == members.end())
        return;
    for (const Member &member : found->second) {
        Entry &entry = *member.entry;
        if (!member.path) {
            entry.above = -1;
            ++blind;
            continue;
        }
        if (member.path->empty()) { // with its file system
            CloseTree(entry);
            Fail(entry, nt::STATUS_DELETE_PENDING);
        }
        folderCount -= entry.folders.erase(*member.path);
    }
    members.erase(found);
}

} // namespace fodr::ntposix
