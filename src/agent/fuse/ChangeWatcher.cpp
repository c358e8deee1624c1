#include "agent/fuse/ChangeWatcher.h"

#include <algorithm>

namespace fodr::agent {
namespace {

using namespace std::chrono_literals;

// Listings of one folder: the first after a notice waits for what comes with it, and one that takes long is
// made the more seldom.
constexpr auto kComesWithIt = 5ms;
constexpr auto kPause = 30ms;
constexpr auto kPauseWhenBusy = 150ms; // while programs of the mount work there
constexpr int kShareOfTime = 3;

// A file that is gone from one folder may be found in another. What was found isn't kept back for longer.
constexpr auto kOtherEnd = 25ms;
constexpr auto kLongestWait = 150ms;

// Folders are watched once the walk of a tree has gone on, and left most of them behind.
constexpr auto kQuiet = 40ms;
constexpr auto kLongestWalk = 200ms;

} // namespace

ChangeWatcher::ChangeWatcher(MountState &mountState, DirectoryOperations &directoryOperations)
    : mount(mountState), listings(directoryOperations)
{
    if (mount.options.events)
        mount.observer = this;
}

ChangeWatcher::~ChangeWatcher()
{
    mount.notifier.Stop(); // what is to be called later
}

// ---- Which folders ----

void ChangeWatcher::OnUsed(uint64_t node)
{
    if (!mount.options.events)
        return;
    const NodePtr folder = mount.table.Find(node);
    if (folder && folder->directory)
        OnUsed(folder);
}

void ChangeWatcher::OnUsed(const NodePtr &folder)
{
    if (folder->IsWatched())
        return;
    const auto now = Clock::now();
    const MutexLock held(lock);
    wantedLast = now;
    for (auto at = wanted.begin(); at != wanted.end(); ++at) {
        if (at->lock() == folder) {
            std::rotate(at, at + 1, wanted.end());
            return;
        }
    }
    if (wanted.size() >= kMostWanted)
        wanted.erase(wanted.begin());
    wanted.push_back(folder);
    if (wanted.size() > 1)
        return;
    wantedSince = now;
    mount.notifier.CallAt(now + kQuiet, [this] { WatchWanted(); });
}

void ChangeWatcher::WatchWanted()
{
    std::vector<std::weak_ptr<Node>> ready;
    {
        const auto now = Clock::now();
        const MutexLock held(lock);
        if (now - wantedLast < kQuiet && now - wantedSince < kLongestWalk)
            return mount.notifier.CallAt(wantedLast + kQuiet, [this] { WatchWanted(); });
        ready.swap(wanted);
    }
    for (const std::weak_ptr<Node> &weak : ready) {
        const NodePtr folder = weak.lock();
        NodeTable::Place place;
        if (folder && !mount.directories.Present(folder) && mount.table.PlaceOf(folder, &place) &&
            !place.share->Device().IsTagged())
            mount.directories.Acquire(folder, [](nt::NTSTATUS, const DirectoryHandlePtr &) {});
    }
}

// ---- Looking ----

void ChangeWatcher::OnWatched(const NodePtr &folder)
{
    const MutexLock held(lock);
    ForgetUnused();
    Folder &watched = folders[folder->id];
    watched.node = folder;
    Schedule(folder, watched);
}

void ChangeWatcher::OnChanged(const NodePtr &folder, bool last)
{
    if (last)
        OnUsed(folder); // its handle has gone, not always the folder
    const MutexLock held(lock);
    const auto found = folders.find(folder->id);
    if (found != folders.end())
        Schedule(folder, found->second);
}

void ChangeWatcher::Schedule(const NodePtr &node, Folder &folder)
{
    if (folder.waiting)
        return;
    if (folder.listing) {
        folder.again = true;
        return;
    }
    folder.waiting = true;
    const bool busy = node->IsBusy();
    const Clock::duration first = busy ? Clock::duration(kPauseWhenBusy) : kComesWithIt;
    const Clock::duration pause =
        std::max<Clock::duration>(busy ? kPauseWhenBusy : kPause, kShareOfTime * folder.took);
    mount.notifier.CallAt(std::max<Clock::time_point>(Clock::now() + first, folder.ended + pause),
                          [this, weak = std::weak_ptr<Node>(node)] {
                              if (const NodePtr alive = weak.lock())
                                  Look(alive);
                          });
}

void ChangeWatcher::Look(const NodePtr &node)
{
    const auto now = Clock::now();
    {
        const MutexLock held(lock);
        const auto found = folders.find(node->id);
        if (found == folders.end())
            return;
        Folder &folder = found->second;
        folder.waiting = folder.again = false;
        if (folder.tooMany) {
            NoteChanges(now);
            changes.AddMany(node);
            folder.ended = now;
            return TellSoon();
        }
        folder.listing = true;
        ++underWay;
    }
    List(node, now);
}

Detached ChangeWatcher::List(NodePtr node, Clock::time_point asked)
{
    auto open = std::make_shared<OpenListing>();
    open->node = node;
    nt::NTSTATUS status = co_await listings.BeginListing(open);
    FolderEntries entries;
    if (!nt::IsError(status)) {
        co_await AwaitCall([&](InlineFunction<void()> done) { open->listing->WhenEnded(std::move(done)); });
        status = open->listing->Status();
        for (size_t i = 0; const DirectoryListing::Entry *entry = open->listing->At(i); ++i) {
            if (open->listing->Knows(*entry))
                entries.emplace(entry->name, entry->facts);
        }
    }
    Listed(node, asked, !nt::IsError(status), std::move(entries));
}

void ChangeWatcher::Listed(const NodePtr &node, Clock::time_point asked, bool whole, FolderEntries entries)
{
    const MutexLock held(lock);
    --underWay;
    const auto found = folders.find(node->id);
    if (found == folders.end())
        return TellSoon();
    Folder &folder = found->second;
    folder.listing = false;
    folder.ended = Clock::now();
    folder.took = folder.ended - asked;
    if (whole) {
        if (folder.known)
            Compare(node, folder, entries, asked);
        folder.asked = asked;
        Keep(folder, std::move(entries));
        std::erase_if(folder.own,
                      [&](const auto &own) { return own.second.underWay == 0 && own.second.ended < asked; });
        folder.tooManyOwn = false;
    }
    if (folder.again)
        Schedule(node, folder);
    TellSoon();
}

// Before what was asked for then is added to the changes.
void ChangeWatcher::NoteChanges(Clock::time_point asked)
{
    if (changes.Empty()) {
        changesSince = Clock::now();
        changesAsked = asked;
    }
    changesAsked = std::min(changesAsked, asked);
}

void ChangeWatcher::Compare(const NodePtr &node, Folder &folder, const FolderEntries &entries,
                            Clock::time_point asked)
{
    const auto isOwn = [&folder](const std::string &name) {
        const auto own = folder.own.find(name);
        return folder.tooManyOwn ||
               (own != folder.own.end() && (own->second.underWay != 0 || own->second.ended >= folder.asked));
    };
    const auto isOwnContent = [&](const std::string &name) {
        if (isOwn(name))
            return true;
        const NodePtr file = mount.table.Child(node, name);
        return file && (file->ChangedSince(folder.asked) || file->opens.Any(true));
    };
    NoteChanges(asked);
    changes.Compare(node, folder.entries, entries, isOwn, isOwnContent, kMostChanges);
}

void ChangeWatcher::Keep(Folder &folder, FolderEntries entries)
{
    entriesInAll -= folder.entries.size();
    folder.known = true;
    folder.tooMany = entries.size() > kMostOfFolder || entriesInAll + entries.size() > kMostEntries;
    folder.entries = folder.tooMany ? FolderEntries() : std::move(entries);
    entriesInAll += folder.entries.size();
}

// Those that nobody has any more, and beyond what the cache holds those that it has let go.
void ChangeWatcher::ForgetUnused()
{
    for (auto at = folders.begin(); at != folders.end();) {
        const NodePtr node = at->second.node.lock();
        const bool crowded = folders.size() > DirectoryCache::kCapacity;
        if (node && (!crowded || at->second.listing || mount.directories.Present(node))) {
            ++at;
            continue;
        }
        entriesInAll -= at->second.entries.size();
        at = folders.erase(at);
    }
}

// ---- What the mount itself does ----

std::shared_ptr<void> ChangeWatcher::BeginOwn(uint64_t folder, const std::string &name)
{
    const MutexLock held(lock);
    const auto found = folders.find(folder);
    if (found == folders.end())
        return nullptr;
    if (found->second.own.size() >= kMostOwn)
        found->second.tooManyOwn = true;
    else
        ++found->second.own[name].underWay;
    if (found->second.tooManyOwn)
        return nullptr;
    return std::shared_ptr<void>(
        this, [folder, name](void *watcher) { static_cast<ChangeWatcher *>(watcher)->EndOwn(folder, name); });
}

void ChangeWatcher::EndOwn(uint64_t folder, const std::string &name)
{
    const MutexLock held(lock);
    const auto found = folders.find(folder);
    if (found == folders.end())
        return;
    const auto own = found->second.own.find(name);
    if (own == found->second.own.end())
        return;
    own->second.underWay -= std::min<size_t>(own->second.underWay, 1);
    own->second.ended = Clock::now();
}

// ---- Telling ----

void ChangeWatcher::TellSoon()
{
    if (changes.Empty())
        return;
    const auto now = Clock::now();
    tellAt =
        changes.MayPair() ? std::min<Clock::time_point>(now + kOtherEnd, changesSince + kLongestWait) : now;
    mount.notifier.CallAt(tellAt, [this] { Tell(); });
}

void ChangeWatcher::Tell()
{
    std::vector<FolderEvent> events;
    {
        const auto now = Clock::now();
        const MutexLock held(lock);
        const bool overdue = now - changesSince >= kLongestWait;
        if (changes.Empty() || (now < tellAt && !overdue) || (underWay != 0 && changes.MayPair() && !overdue))
            return;
        events = changes.Take();
        for (FolderEvent &event : events)
            event.asked = changesAsked;
    }
    actor.Push(std::move(events));
}

} // namespace fodr::agent
