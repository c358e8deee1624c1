// A file or folder that the kernel knows. A node is a file of the other side, never a path: its names lead to
// it, and a name that leads to another file leads to another node. Node numbers are never used again, so
// their generation is always 0.
#pragma once

#include "agent/FileFacts.h"
#include "agent/InlineFunction.h"
#include "agent/ReadAhead.h"
#include "agent/WriteBehind.h"
#include "lib/misc/Mutex.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace fodr::agent {

// Lets those who use a folder's names in, many at once, and those who have to take a name away for a moment,
// alone. First come, first served. Any thread; waiters are called outside the lock.
class NameGate {
public:
    enum class Entry { Shared, Alone };
    using Waiter = InlineFunction<void()>;

    // True: entered. False: the gate is taken, and the way in is Enter.
    [[nodiscard]] bool TryEnter(Entry entry);
    // Calls the waiter when it has entered.
    void Enter(Entry entry, Waiter waiter);
    void Leave(Entry entry);

private:
    bool Admit(Entry entry) REQUIRES(lock);

    struct Waiting {
        Entry entry;
        Waiter waiter;
    };
    Mutex lock;
    size_t inside GUARDED_BY(lock) = 0;
    bool alone GUARDED_BY(lock) = false;
    std::deque<Waiting> waiting GUARDED_BY(lock);
};

class DirectoryListing;
struct Node;
using NodePtr = std::shared_ptr<Node>;

struct RemoteFile;
using RemoteFilePtr = std::shared_ptr<RemoteFile>;

// One open of a file through the mount. Its handle is closed when the last who uses it has done so.
struct RemoteFile {
    RemoteFile() = default;
    ~RemoteFile();
    RemoteFile(const RemoteFile &) = delete;
    RemoteFile &operator=(const RemoteFile &) = delete;

    NodePtr node;
    std::shared_ptr<RemoteShare> share;
    uint32_t fileId = 0;
    uint32_t access = 0;          // the rights that it was opened with
    std::shared_ptr<void> lender; // whose handle this is, if it isn't this open's
    bool readable = false;
    bool writable = false;
    bool changesBasics = false; // times and attributes can be set by it
    bool direct = false;        // the kernel keeps none of the bytes that go through it
    bool givenAway = false;     // the handle isn't this open's any more
    bool released = false;      // the kernel has closed it: counted by BeginClose already
    std::shared_ptr<WriteErrors> errors = std::make_shared<WriteErrors>();
    std::shared_ptr<ReadAhead> readAhead; // when readable

    WriteBehind::Target Target() const { return {share, fileId, errors}; }
};

// What is open of one file. Any thread.
class OpenState {
public:
    void Add(const RemoteFilePtr &file);
    void Remove(const RemoteFilePtr &file);
    // Around every close of a handle of the file that is sent: the name can't be replaced before it is over.
    void BeginClose();
    void EndClose();
    // Around an open that may write, from its request to Add.
    void BeginWritableOpen();
    void EndWritableOpen();
    // Programs of this mount may write to it, now or as soon as their open is answered.
    bool MayBeWritten() const;
    // Any open of the file; one that may write if that is wanted. Null when there is none.
    RemoteFilePtr Any(bool writable) const;
    RemoteFilePtr AnyWith(uint32_t access) const; // that was opened with just these rights
    RemoteFilePtr AnyThatChangesBasics() const;
    bool AnyIsCached() const; // the kernel keeps bytes that were read through it
    bool IsOpen() const;
    bool IsClosing() const;
    // How many closes have ended. A refusal by one of them may be told after its end.
    uint64_t ClosesEnded() const;

    using Waiter = InlineFunction<void()>;
    // Calls the function when no close is under way.
    void WhenNoneClosing(Waiter waiter);

    // The handle whose close deletes the file, kept for as long as the file is open. TakeDeletion gives it
    // once nothing is open any more; 0: there is none, or it isn't time.
    void SetDeletion(uint32_t deletingFileId);
    bool IsDeleted() const;
    uint32_t TakeDeletion();

private:
    mutable Mutex lock;
    std::vector<RemoteFilePtr> files GUARDED_BY(lock);
    std::vector<Waiter> waiters GUARDED_BY(lock);
    size_t opening GUARDED_BY(lock) = 0; // to write
    size_t closing GUARDED_BY(lock) = 0;
    uint64_t closesEnded GUARDED_BY(lock) = 0;
    uint32_t deletion GUARDED_BY(lock) = 0;
};

// Never changes: another kind is another file.
enum class NodeKind : uint8_t { Directory, File, Link, Special };
NodeKind KindOf(const FileFacts &facts);

struct Node {
    Node(uint64_t nodeId, NodeKind nodeKind)
        : id(nodeId), kind(nodeKind), directory(nodeKind == NodeKind::Directory)
    {}

    const uint64_t id;
    const NodeKind kind;
    const bool directory;

    // NodeTable's lock guards these.
    struct Name {
        NodePtr parent;
        std::string text;
    };
    std::vector<Name> names;          // the one that was seen last comes last; a directory has one at most
    std::weak_ptr<Node> formerParent; // of the last name that it lost
    std::string formerName;
    std::u16string movedTo; // of a folder without a name: its path in the share, as its handle told; or empty
    std::shared_ptr<RemoteShare> movedShare;
    uint64_t fileId = 0;                    // FileFacts::id; 0 when it isn't known
    std::shared_ptr<RemoteShare> shareOfId; // where the table finds it by its fileId
    uint64_t lookups = 0;                   // the kernel's count
    std::unordered_map<std::string, Node *> children;
    std::shared_ptr<RemoteShare> shareRoot; // of the node that stands for a share

    using Clock = std::chrono::steady_clock;
    // What was last seen of it, with its own lock. True when its content may have changed since what was seen
    // before.
    bool NoteFacts(const FileFacts &seen);
    bool LastFacts(FileFacts *last) const;
    // Facts that came with an open of the file: they answer one question, unless they are older than `span`
    // by then or something has changed since.
    void NoteFactsOfOpen(const FileFacts &seen);
    bool TakeFactsOfOpen(Clock::duration span, FileFacts *seen, Clock::time_point *opened);
    void DropFactsOfOpen();
    // The last change that this mount made: of a file's data or facts, of a folder's names.
    void NoteOwnChange() { ownChange = Clock::now().time_since_epoch().count(); }
    bool ChangedSince(Clock::time_point time) const { return ownChange >= time.time_since_epoch().count(); }
    // When a name of it was last seen to lead to it.
    void NoteSeen(Clock::time_point asked) { seenAt = asked.time_since_epoch().count(); }
    Clock::time_point SeenAt() const { return Clock::time_point(Clock::duration(seenAt.load())); }
    // The kernel was led here by a file that an open had come upon (OpenedAhead).
    void NoteAhead(int caller)
    {
        aheadOf = caller;
        aheadAt = Clock::now().time_since_epoch().count();
    }
    bool IsAhead(int caller, Clock::duration span) const
    {
        return aheadOf == caller && Clock::now() - Clock::time_point(Clock::duration(aheadAt.load())) < span;
    }
    // The file was found under another name than it had. Who opens it meanwhile may have come by the old one:
    // the kernel has to look again, and then comes by a name that it was just told of.
    void NoteRenamed(Clock::duration span)
    {
        lookedUpAt = 0;
        renamedUntil = (Clock::now() + span).time_since_epoch().count();
    }
    void NoteLookedUp()
    {
        if (IsRenamed())
            lookedUpAt = Clock::now().time_since_epoch().count();
    }
    bool MustBeLookedUp() const
    {
        constexpr Clock::duration kComesAgain = std::chrono::milliseconds(20);
        return IsRenamed() && Clock::now().time_since_epoch().count() - lookedUpAt > kComesAgain.count();
    }
    // It was reached by a name that differs from its own in case.
    void NoteOtherCase() { inOtherCase = true; }
    bool IsInOtherCase() const { return inOtherCase; }
    // Of a directory that was moved: who opens it by its old name has to look again, which ends with that.
    // Who comes back at once has it open, or stands in it. True: this is the first try.
    bool TurnAway(Clock::duration span)
    {
        const Clock::rep now = Clock::now().time_since_epoch().count();
        return now - turnedAwayAt.exchange(now) > span.count();
    }
    // Of a directory: when an answer about its entries was last given that only a notice would correct in
    // time.
    void NoteLongAnswer() { longAnswerAt = Clock::now().time_since_epoch().count(); }
    Clock::time_point LongAnswerAt() const { return Clock::time_point(Clock::duration(longAnswerAt.load())); }
    // Of a directory: when the other side last told of a change in it.
    void NoteNotice() { noticedAt = Clock::now().time_since_epoch().count(); }
    Clock::time_point NoticedAt() const { return Clock::time_point(Clock::duration(noticedAt.load())); }
    // Of a directory: since when the other side surely tells of the next change in it.
    void SetWatchedFrom(Clock::time_point time) { watchedFrom = time.time_since_epoch().count(); }
    void SetUnwatched() { watchedFrom = 0; }
    bool IsWatched() const
    {
        const Clock::rep from = watchedFrom;
        return from != 0 && Clock::now().time_since_epoch().count() >= from;
    }
    // What was asked for then has been watched over since.
    bool IsWatchedSince(Clock::time_point asked) const
    {
        const Clock::rep from = watchedFrom;
        return from != 0 && asked.time_since_epoch().count() >= from;
    }
    // Of a directory that this mount is changing: its notices tell little then.
    void SetBusyUntil(Clock::time_point time) { busyUntil = time.time_since_epoch().count(); }
    bool IsBusy() const
    {
        const Clock::rep until = busyUntil;
        return until != 0 && Clock::now().time_since_epoch().count() < until;
    }
    // What is known of `gone` goes with it: whoever was told of its folder before its change can't use that.
    void TakeChangeOf(const Node &gone)
    {
        const Clock::rep its = gone.ownChange;
        Clock::rep ours = ownChange;
        while (ours < its && !ownChange.compare_exchange_weak(ours, its)) {
        }
    }

    // Of a symbolic link, where it leads; empty: not asked yet. It never changes.
    void NoteTarget(const std::string &linkTarget);
    std::string Target() const;

    // Listings of the folder that may be going on, to be ended when it is removed.
    void NoteListing(const std::shared_ptr<DirectoryListing> &listing);
    std::shared_ptr<DirectoryListing> AnyListing() const; // null when there is none
    void EndListings();

    // Shared by all opens of a file; made with the first.
    std::shared_ptr<WriteBehind> Writes(TransferWindow &window);
    std::shared_ptr<WriteBehind> WritesIfAny() const;
    OpenState opens;
    NameGate gate; // of the names in a folder

private:
    bool IsRenamed() const
    {
        const Clock::rep until = renamedUntil;
        return until != 0 && Clock::now().time_since_epoch().count() < until;
    }

    mutable Mutex factsLock;
    bool factsKnown GUARDED_BY(factsLock) = false;
    FileFacts facts GUARDED_BY(factsLock);
    Clock::time_point openedAt GUARDED_BY(factsLock); // when the facts came with an open; zero: they didn't
    std::shared_ptr<WriteBehind> writes GUARDED_BY(factsLock);
    std::string target GUARDED_BY(factsLock);
    std::vector<std::weak_ptr<DirectoryListing>> listings GUARDED_BY(factsLock);
    std::atomic<Clock::rep> ownChange{0};
    std::atomic<int> aheadOf{0};
    std::atomic<Clock::rep> seenAt{0}, aheadAt{0}, longAnswerAt{0}, renamedUntil{0}, turnedAwayAt{0};
    std::atomic<Clock::rep> lookedUpAt{0};
    std::atomic<bool> inOtherCase{false};
    std::atomic<Clock::rep> noticedAt{0};
    std::atomic<Clock::rep> watchedFrom{0}, busyUntil{0};
};

} // namespace fodr::agent
