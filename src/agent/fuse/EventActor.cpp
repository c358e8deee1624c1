#include "agent/fuse/EventActor.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <linux/openat2.h>
#include <sys/syscall.h>

namespace fodr::agent {
namespace {

using Kind = FolderEvent::Kind;

constexpr size_t kBatch = 64; // acted with one look for the mount
constexpr auto kLettingGo = std::chrono::seconds(1);
constexpr int kTries = 3; // somebody looks at a name at the same moment

constexpr timespec kLeaveIt = {0, UTIME_OMIT};

// Never over a border of the mount, nor through a link.
Fd OpenInside(int folder, const std::string &path, int flags)
{
    open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
    how.resolve = RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS | RESOLVE_BENEATH;
    return Fd(static_cast<int>(syscall(SYS_openat2, folder, path.c_str(), &how, sizeof(how))));
}

// IN_MODIFY. Answered without a size that might be old.
void RaiseModify(const Fd &file)
{
    fallocate(file.Get(), FALLOC_FL_KEEP_SIZE, 0, 1);
}

// IN_ATTRIB.
void SetTimes(int file, const FileFacts &facts)
{
    const timespec times[] = {TimeOfNt(facts.lastAccessTime), TimeOfNt(facts.lastWriteTime)};
    utimensat(file, "", times, AT_EMPTY_PATH);
}

void ActMade(const FolderEvent &event, int folder)
{
    const char *name = event.name.c_str();
    for (int tries = 0; tries < kTries; ++tries) {
        int made = -1;
        switch (KindOf(event.facts)) {
        case NodeKind::Directory:
            made = mkdirat(folder, name, 0755);
            break;
        case NodeKind::Link:
            made = symlinkat(".", folder, name);
            break;
        case NodeKind::Special:
            made = mknodat(folder, name, StatOf(event.facts, 0, {}).st_mode, 0);
            break;
        case NodeKind::File: {
            const Fd file(openat(folder, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
            made = file.Get();
            if (made >= 0 && event.facts.endOfFile != 0)
                RaiseModify(file);
            break;
        }
        }
        if (made >= 0 || errno != EEXIST)
            return;
    }
}

void ActChanged(const FolderEvent &event, int folder)
{
    const Fd file = OpenInside(folder, event.name, O_WRONLY | O_NONBLOCK);
    if (file.Get() >= 0)
        return RaiseModify(file); // and IN_CLOSE_WRITE
    const Fd place = OpenInside(folder, event.name, O_PATH);
    const timespec times[] = {kLeaveIt, TimeOfNt(event.facts.lastWriteTime)};
    if (place.Get() >= 0)
        utimensat(place.Get(), "", times, AT_EMPTY_PATH);
}

} // namespace

EventActor::~EventActor()
{
    Stop();
    std::thread ended;
    {
        const MutexLock held(lock);
        ended.swap(thread);
    }
    if (ended.joinable())
        ended.join();
}

void EventActor::SetMountPoint(const std::string &path)
{
    const MutexLock held(lock);
    mountPoint = path;
}

void EventActor::Push(std::vector<FolderEvent> events)
{
    const MutexLock held(lock);
    if (stopping || mountPoint.empty() || events.empty())
        return;
    if (waiting.size() + events.size() > kMostWaiting) {
        NodePtr last;
        for (const FolderEvent &event : events) {
            if (event.folder != last && waiting.size() < 2 * kMostWaiting)
                waiting.push_back({.kind = Kind::Many, .folder = event.folder, .name = {}});
            last = event.folder;
        }
    } else {
        std::move(events.begin(), events.end(), std::back_inserter(waiting));
    }
    if (!thread.joinable())
        thread = std::thread([this] { ThreadMain(); });
    changed.notify_all();
}

void EventActor::Stop()
{
    const auto end = std::chrono::steady_clock::now() + kLettingGo;
    const MutexLock held(lock);
    stopping = true;
    waiting.clear();
    changed.notify_all();
    while (acting && changed.wait_until(lock, end) != std::cv_status::timeout) {
    }
}

bool EventActor::IsStopping()
{
    const MutexLock held(lock);
    return stopping;
}

void EventActor::ThreadMain()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    threadId = gettid();
    for (;;) {
        std::vector<FolderEvent> batch;
        {
            const MutexLock held(lock);
            acting = false;
            changed.notify_all();
            while (waiting.empty() && !stopping)
                changed.wait(lock);
            if (stopping)
                break;
            const auto end = waiting.begin() + static_cast<ptrdiff_t>(std::min(waiting.size(), kBatch));
            batch.assign(std::make_move_iterator(waiting.begin()), std::make_move_iterator(end));
            waiting.erase(waiting.begin(), end);
            acting = true;
        }
        ActOut(batch);
    }
    threadId = 0;
}

// The kernel asks us, and says that it is for this thread: what is acted there is answered here, and isn't
// done to another file system.
bool EventActor::IsNode(const Fd &fd, const NodePtr &node)
{
    if (fd.Get() < 0)
        return false;
    proof = 0;
    struct statx facts;
    const int told = statx(fd.Get(), "", AT_EMPTY_PATH | AT_STATX_FORCE_SYNC, STATX_INO, &facts);
    return told == 0 && proof == node->id;
}

Fd EventActor::OpenFolder(const Fd &root, const NodePtr &folder)
{
    std::string path;
    NodePtr at = folder, parent;
    for (std::string name; at != mount.table.Root(); at = parent) {
        if (!mount.table.ParentAndNameOf(at, &parent, &name))
            return {};
        path = path.empty() ? name : name + "/" + path;
    }
    if (path.empty())
        path = ".";
    Fd opened = OpenInside(root.Get(), path, O_PATH | O_DIRECTORY);
    return IsNode(opened, folder) ? std::move(opened) : Fd();
}

// Descriptors keep the mount from being unmounted: they live as long as the batch.
void EventActor::ActOut(const std::vector<FolderEvent> &events)
{
    std::string path;
    {
        const MutexLock held(lock);
        path = mountPoint;
    }
    const Fd root(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!IsNode(root, mount.table.Root()))
        return;
    Fd folder, newFolder;
    NodePtr opened;
    for (const FolderEvent &event : events) {
        if (IsStopping())
            break;
        if (event.folder != opened) {
            opened = event.folder;
            folder = OpenFolder(root, opened);
        }
        if (event.kind == Kind::Moved)
            newFolder = OpenFolder(root, event.newFolder);
        if (event.kind == Kind::Replaced)
            newFolder = OpenFolder(root, Nowhere(event.folder));
        Act(event, folder, newFolder);
    }
}

void EventActor::Begin(const FolderEvent *event)
{
    Scene old; // let go outside the lock
    const MutexLock held(lock);
    std::swap(old, scene);
    scene.event = event;
    if (event)
        askedAt = event->asked.time_since_epoch().count();
}

// Whether it tells of a file whose events come from this mount.
bool EventActor::IsOfOwnSize(const FolderEvent &event) const
{
    if (event.kind != Kind::Made && event.kind != Kind::Changed && event.kind != Kind::Touched)
        return false;
    const NodePtr known = mount.table.Child(event.folder, event.name);
    const uint64_t id = known ? mount.table.FileIdOf(known) : 0;
    return known && (id == 0 || id == event.facts.id) && HasOwnSize(known);
}

void EventActor::Act(const FolderEvent &event, const Fd &folder, const Fd &newFolder)
{
    if (folder.Get() < 0)
        return;
    Begin(&event);
    if (IsOfOwnSize(event))
        return Begin(nullptr);
    const char *name = event.name.c_str();
    switch (event.kind) {
    case Kind::Made:
        ActMade(event, folder.Get());
        break;
    case Kind::Removed:
        unlinkat(folder.Get(), name, KindOf(event.facts) == NodeKind::Directory ? AT_REMOVEDIR : 0);
        break;
    case Kind::Moved:
        renameat(folder.Get(), name, newFolder.Get(), event.newName.c_str());
        break;
    case Kind::Replaced:
        renameat(newFolder.Get(), kNewFile, folder.Get(), name);
        break;
    case Kind::Changed:
        ActChanged(event, folder.Get());
        break;
    case Kind::Touched: {
        const Fd place = OpenInside(folder.Get(), event.name, O_PATH);
        if (place.Get() >= 0)
            SetTimes(place.Get(), event.facts);
        break;
    }
    case Kind::Many:
        SetTimes(folder.Get(), FactsOf(event.folder));
        break;
    }
    Begin(nullptr);
}

} // namespace fodr::agent
