// The process's inotify: one instance and one reading thread for all change notifications. Both exist only
// while somebody watches.
//
// Any thread. Watches of the same directory share one kernel watch. A tree is one kernel watch a folder;
// symbolic links in it aren't followed, as NT's watches don't cross reparse points. Handles that watch the
// same tree for the same changes share what is kept of its folders.
#pragma once

#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"
#include "ntposix/ChangeWatch.h"

#include <atomic>
#include <compare>
#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

struct inotify_event;

namespace fodr::ntposix {

class ChangeMonitor {
public:
    // Folders of all watches together; one more is ENOSPC, as when the kernel has no watch left.
    static constexpr size_t kMostFolders = 65'536;

    // The one that runs, or a new one. Null when the system gives no inotify or thread.
    static std::shared_ptr<ChangeMonitor> Get();
    // The one that runs, or null.
    static std::shared_ptr<ChangeMonitor> Running();
    ~ChangeMonitor(); // never on the reading thread
    ChangeMonitor(const ChangeMonitor &) = delete;
    ChangeMonitor &operator=(const ChangeMonitor &) = delete;

    // After success no change is missed. STATUS_CANCELLED when `call` ended during the work on a large tree.
    // Remove also after a failure.
    nt::NTSTATUS Add(const std::shared_ptr<ChangeWatch> &watch, BlockedCall &call) EXCLUDES(lock);
    void Remove(ChangeWatch *watch) EXCLUDES(lock);
    // Reports every change that the kernel has reported so far, as the reading thread would.
    void Drain() EXCLUDES(reading, lock);
    // Fails the watches of that directory.
    void FailDirectory(FileKey key, nt::NTSTATUS status) EXCLUDES(lock);

private:
    using Folders = std::map<std::string, int>; // path to kernel watch
    // Device, inode, filter.
    using TreeKey = std::tuple<dev_t, ino_t, uint32_t>;
    // A directory that one handle watches, or a tree that several watch alike. What isn't const is by lock.
    struct Entry {
        // Of a tree the descriptor is its own: folders that appear are read without the lock.
        Entry(const ChangeWatch &first, Fd treeDirectory)
            : key(first.key), filter(first.filter), tree(first.tree), own(std::move(treeDirectory)),
              directory(tree ? own.Get() : first.directory)
        {}
        TreeKey KeyOfTree() const { return {key.device, key.inode, filter}; }

        const FileKey key;
        const uint32_t filter;
        const bool tree;
        const Fd own;
        const int directory;
        std::vector<std::shared_ptr<ChangeWatch>> watches;
        Folders folders;
        bool incomplete = false; // something of the tree isn't seen
        int above = -1;          // kernel watch of the folder above; none where that can't be read
    };
    using EntryPointer = std::shared_ptr<Entry>;
    // A folder in which an entry takes part. The entry's own directory is the path "".
    struct Member {
        Entry *entry;
        const std::string *path; // key in Entry::folders; null: the folder above, which reports the removal
        auto operator<=>(const Member &) const = default;
    };
    // A folder that appeared in a tree, to be watched without the lock.
    struct NewFolder {
        EntryPointer entry;
        std::string path;
    };

    ChangeMonitor(Fd inotifyFd, Fd wakeFd);

    void Run();
    void ReadEvents() REQUIRES(reading) EXCLUDES(lock);
    void Handle(const inotify_event &event) REQUIRES(reading) EXCLUDES(lock);
    void Overflow(std::vector<NewFolder> *rescan) REQUIRES(lock);
    void HandleIn(const Member &member, const inotify_event &event, std::vector<NewFolder> *added)
        REQUIRES(lock);
    void Forget(int descriptor) REQUIRES(lock);

    // True when there is one that knows all of the tree.
    bool JoinTree(const std::shared_ptr<ChangeWatch> &watch) REQUIRES(lock);
    // Something of it isn't seen: no handle joins it any more.
    void CloseTree(Entry &entry) REQUIRES(lock);
    static void Report(const Entry &entry, uint32_t changes);
    static void Fail(const Entry &entry, nt::NTSTATUS status);
    int AddFolder(Entry &entry, const std::string &path) REQUIRES(lock);
    void AddAbove(Entry &entry) REQUIRES(lock);
    void DropAbove(Entry &entry) REQUIRES(lock);
    void FailRemoved() REQUIRES(lock);
    void Wake() const;
    int AddFolders(const EntryPointer &entry, std::string path, BlockedCall *call) EXCLUDES(lock);
    void DropFolders(Entry &entry, const std::string &path) REQUIRES(lock);
    Folders::iterator DropFolder(Entry &entry, Folders::iterator folder) REQUIRES(lock);
    void Leave(int descriptor, const Member &member) REQUIRES(lock);
    bool IsMember(int descriptor, const Member &member) const REQUIRES(lock);

    const Fd inotify;
    const Fd wake; // eventfd, readable when the thread is to look up from its poll
    std::atomic<bool> ending{false};
    Mutex reading;                     // held from the reading of events until all of them are reported
    std::atomic<bool> handling{false}; // as long as events may have been read that aren't reported
    Mutex lock;                        // after `reading`, before that of a ChangeWatch
    std::atomic<size_t> blind{0};      // entries whose folder above isn't watched; written under lock
    std::unordered_map<const ChangeWatch *, EntryPointer> entries GUARDED_BY(lock);
    std::map<TreeKey, EntryPointer> trees GUARDED_BY(lock); // those that know all of their tree
    size_t folderCount GUARDED_BY(lock) = 0;
    std::unordered_map<int, std::set<Member>> members GUARDED_BY(lock); // by kernel watch
    std::thread reader;
};

// A handle's place in the ChangeMonitor, which runs as long as one of these exists.
class ChangeSubscription {
public:
    ChangeSubscription(std::shared_ptr<ChangeMonitor> usedMonitor, std::shared_ptr<ChangeWatch> addedWatch)
        : monitor(std::move(usedMonitor)), watch(std::move(addedWatch))
    {}
    ~ChangeSubscription() { monitor->Remove(watch.get()); }
    ChangeSubscription(const ChangeSubscription &) = delete;
    ChangeSubscription &operator=(const ChangeSubscription &) = delete;

    const std::shared_ptr<ChangeMonitor> monitor;
    const std::shared_ptr<ChangeWatch> watch;
};

// To be called when a directory is marked for deletion, without FileObject::lock: NT ends the notifications
// on it with STATUS_DELETE_PENDING, so that a watcher lets go of its handle and the directory can go.
void NotifyDeletePending(dev_t device, ino_t inode);

} // namespace fodr::ntposix
