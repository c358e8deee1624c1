// A file or folder that the kernel knows.
#pragma once

#include "agent/FileFacts.h"
#include "agent/ReadAhead.h"
#include "agent/WriteBehind.h"
#include "agent/fuse/NameGate.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace fodr::agent {

class DirectoryListing;
struct Node;
using NodePtr = std::shared_ptr<Node>;

// One open of a file through the mount. Its handle is closed when the last who uses it has done so.
struct OpenFile {
    OpenFile() = default;
    ~OpenFile();
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    NodePtr node;
    std::shared_ptr<RemoteShare> share;
    uint32_t fileId = 0;
    bool readable = false;
    bool writable = false;
    bool released = false; // the kernel has closed it: counted by BeginClose already
    std::shared_ptr<WriteErrors> errors = std::make_shared<WriteErrors>();
    std::shared_ptr<ReadAhead> readAhead; // when readable

    WriteBehind::Target Target() const { return {share, fileId, errors}; }
};
using OpenFilePtr = std::shared_ptr<OpenFile>;

// What is open of one file. Any thread.
class OpenState {
public:
    void Add(const OpenFilePtr &file);
    void Remove(const OpenFilePtr &file);
    // Around every close of a handle of the file that is sent: the name can't be replaced before it is over.
    void BeginClose();
    void EndClose();
    // Any open of the file; one that may write if that is wanted. Null when there is none.
    OpenFilePtr Any(bool writable) const;
    bool IsOpen() const;
    bool IsClosing() const;

    using Waiter = InlineFunction<void()>;
    // Calls the function when no close is under way.
    void WhenNoneClosing(Waiter waiter);

    // The handle whose close deletes the file, kept for as long as the file is open. TakeDeletion gives it
    // once nothing is open any more; 0: there is none, or it isn't time.
    void SetDeletion(uint32_t deletingFileId);
    bool IsDeleted() const;
    uint32_t TakeDeletion();

private:
    mutable transport::Mutex lock;
    std::vector<OpenFilePtr> files GUARDED_BY(lock);
    std::vector<Waiter> waiters GUARDED_BY(lock);
    size_t closing GUARDED_BY(lock) = 0;
    uint32_t deletion GUARDED_BY(lock) = 0;
};

struct Node {
    Node(uint64_t nodeId, bool isDirectory) : id(nodeId), directory(isDirectory) {}

    const uint64_t id;
    const bool directory;

    // NodeTable's lock guards these.
    NodePtr parent; // null for the root, and for what has been removed
    std::string name;
    NodePtr shownParent; // where the kernel last saw it, also when it is hidden or removed by now
    std::string shownName;
    uint64_t lookups = 0; // the kernel's count
    bool removed = false; // has no path any more
    std::unordered_map<std::string, Node *> children;
    std::shared_ptr<RemoteShare> shareRoot; // of the node that stands for a share

    using Clock = std::chrono::steady_clock;
    // What was last seen of it, with its own lock.
    void NoteFacts(const FileFacts &seen);
    bool LastFacts(FileFacts *last) const;
    // Facts that came with an open of the file: they answer one question, unless they are older than `span`
    // by then or something has changed since.
    void NoteFactsOfOpen(const FileFacts &seen);
    bool TakeFactsOfOpen(Clock::duration span, FileFacts *seen);
    void DropFactsOfOpen();
    // The last change that this mount made: of a file's data or facts, of a folder's names.
    void NoteOwnChange() { ownChange = Clock::now().time_since_epoch().count(); }
    bool ChangedSince(Clock::time_point time) const { return ownChange >= time.time_since_epoch().count(); }
    // What is known of `gone` goes with it: whoever was told of its folder before its change can't use that.
    void TakeChangeOf(const Node &gone)
    {
        const Clock::rep its = gone.ownChange;
        Clock::rep ours = ownChange;
        while (ours < its && !ownChange.compare_exchange_weak(ours, its)) {
        }
    }

    // Listings of the folder that may be going on, to be ended when it is removed.
    void NoteListing(const std::shared_ptr<DirectoryListing> &listing);
    void EndListings();

    // Shared by all opens of a file; made with the first.
    std::shared_ptr<WriteBehind> Writes(TransferWindow &window);
    std::shared_ptr<WriteBehind> WritesIfAny() const;
    OpenState opens;
    NameGate gate; // of the names in a folder

private:
    mutable transport::Mutex factsLock;
    bool factsKnown GUARDED_BY(factsLock) = false;
    FileFacts facts GUARDED_BY(factsLock);
    Clock::time_point openedAt GUARDED_BY(factsLock); // when the facts came with an open; zero: they didn't
    std::shared_ptr<WriteBehind> writes GUARDED_BY(factsLock);
    std::vector<std::weak_ptr<DirectoryListing>> listings GUARDED_BY(factsLock);
    std::atomic<Clock::rep> ownChange{0};
};

} // namespace fodr::agent
