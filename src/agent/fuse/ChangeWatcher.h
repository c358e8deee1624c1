// Finds out what the owner did in the folders that the mount has watched (DirectoryCache): each is listed,
// and listed again after a notice. The difference goes to the EventActor. Any thread.
#pragma once

#include "agent/fuse/EventActor.h"
#include "agent/fuse/Operations.h"

#include <map>

namespace fodr::agent {

class ChangeWatcher final : public IFolderObserver {
public:
    // Entries that are remembered of one folder, and of all. A folder with more has one event for each
    // notice.
    static constexpr size_t kMostOfFolder = 20'000;
    static constexpr size_t kMostEntries = 100'000;
    // Changes of one folder that are told one by one, between two looks at it.
    static constexpr size_t kMostChanges = 8192;
    // Names in one folder that the mount changes meanwhile. Beyond, all its changes count as the mount's.
    static constexpr size_t kMostOwn = 8192;
    // Folders that were used last, which are to be watched from then on.
    static constexpr size_t kMostWanted = DirectoryCache::kCapacity * 3 / 4;

    ChangeWatcher(MountState &mountState, DirectoryOperations &directoryOperations);
    ~ChangeWatcher();
    ChangeWatcher(const ChangeWatcher &) = delete;
    ChangeWatcher &operator=(const ChangeWatcher &) = delete;

    EventActor &Actor() { return actor; }

    void OnChanged(const NodePtr &folder, bool last) override;
    void OnWatched(const NodePtr &folder) override;
    void OnUsed(const NodePtr &folder) override;
    void OnUsed(uint64_t node);
    // A program of the mount begins to change the name. Who holds the result is at it.
    std::shared_ptr<void> BeginOwn(uint64_t folder, const std::string &name);

private:
    using Clock = Node::Clock;
    struct Own {
        size_t underWay = 0;
        Clock::time_point ended{};
    };
    struct Folder {
        std::weak_ptr<Node> node;
        FolderEntries entries;
        bool known = false;   // `entries` is what was there at `asked`
        bool tooMany = false; // and isn't kept
        Clock::time_point asked{};
        bool listing = false, waiting = false;
        bool again = false; // something happened since the listing began
        Clock::time_point ended{};
        Clock::duration took{};
        std::unordered_map<std::string, Own> own;
        bool tooManyOwn = false;
    };
    using Folders = std::map<uint64_t, Folder>;

    void Schedule(const NodePtr &node, Folder &folder) REQUIRES(lock);
    void Look(const NodePtr &node);
    Detached List(NodePtr node, Clock::time_point asked);
    void Listed(const NodePtr &node, Clock::time_point asked, bool whole, FolderEntries entries);
    void NoteChanges(Clock::time_point asked) REQUIRES(lock);
    void Compare(const NodePtr &node, Folder &folder, const FolderEntries &entries, Clock::time_point asked)
        REQUIRES(lock);
    void Keep(Folder &folder, FolderEntries entries) REQUIRES(lock);
    void ForgetUnused() REQUIRES(lock);
    void EndOwn(uint64_t folder, const std::string &name);
    void TellSoon() REQUIRES(lock);
    void Tell();
    void WatchWanted();

    MountState &mount;
    DirectoryOperations &listings;
    EventActor actor{mount};
    Mutex lock;
    Folders folders GUARDED_BY(lock);
    size_t entriesInAll GUARDED_BY(lock) = 0;
    size_t underWay GUARDED_BY(lock) = 0; // listings
    FolderChanges changes GUARDED_BY(lock);
    Clock::time_point changesSince GUARDED_BY(lock){}, tellAt GUARDED_BY(lock){};
    Clock::time_point changesAsked GUARDED_BY(lock){}; // when the first of the listings that show them was
    std::vector<std::weak_ptr<Node>> wanted GUARDED_BY(lock);
    Clock::time_point wantedSince GUARDED_BY(lock){}, wantedLast GUARDED_BY(lock){};
};

} // namespace fodr::agent
