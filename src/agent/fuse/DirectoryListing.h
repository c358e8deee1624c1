// One listing of a folder, from front to back. Several queries are under way at once; each brings another
// part, in no certain order, which is no matter for a listing. Any thread; handlers run outside the lock.
#pragma once

#include "agent/fuse/Node.h"
#include "lib/unicode/NameMapping.h"

#include <chrono>
#include <deque>
#include <memory>
#include <string>

namespace fodr::agent {

class DirectoryListing : public std::enable_shared_from_this<DirectoryListing> {
public:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        std::string name; // POSIX
        FileFacts facts;
        Clock::time_point asked; // when the other side was
    };

    // Takes the folder's handle over, which was opened for this. `folderId` is the folder's own id, 0 where
    // it isn't known: a listing of another folder fails with STATUS_OBJECT_PATH_NOT_FOUND.
    DirectoryListing(NodePtr directory, std::shared_ptr<RemoteShare> remoteShare, uint32_t remoteFile,
                     bool rootOfShare, uint64_t folderId)
        : node(std::move(directory)), share(std::move(remoteShare)), fileId(remoteFile), ofRoot(rootOfShare),
          wantedId(folderId), isFolder(folderId == 0)
    {}
    ~DirectoryListing();

    // Calls the handler when entry `index` is there, or surely won't be.
    using Waiter = InlineFunction<void()>;
    void WhenKnown(size_t index, Waiter waiter);

    // Calls the handler when there will be no more entries.
    void WhenEnded(Waiter waiter) { WhenKnown(SIZE_MAX, std::move(waiter)); }
    // The names with kHiddenPrefix that were found.
    std::vector<std::string> Hidden() const;

    // Null when the listing has fewer entries. An entry stays where it is while the listing lives.
    const Entry *At(size_t index) const;
    // Why the listing ended, once it has.
    nt::NTSTATUS Status() const;
    // Whether any entry was asked for.
    bool IsBegun() const;
    // Its folder is removed: nothing is in it, and a handle that nobody has read from is closed.
    void EndUnread();
    // A listing waits for a reader that is far behind. True once, when that begins. From then on GoOnIfIdle
    // is called from time to time, until it is true: a reader that stands still for `span` isn't waited for
    // any more, since the other side keeps a buffer for each listing that isn't at its end.
    [[nodiscard]] bool BeginsToWait();
    [[nodiscard]] bool GoOnIfIdle(Clock::duration span);
    // False where nothing but its name could be had: a host that tells modes tells one of all else. Nor is
    // enough known of a link that is followed.
    bool Knows(const Entry &entry) const
    {
        return (!share->TellsIds() || entry.facts.mode != 0) &&
               !(NamesOneByOne() && entry.facts.IsSymbolicLink());
    }
    bool NamesOneByOne() const { return share->Device().IsTagged() && ofRoot; }
    // Whether the handle is open, and what it is. It stays so as long as the listing lives, where an open
    // folder can be removed; else it is closed at the end.
    bool IsOpen() const;
    RemoteShare &Share() const { return *share; }
    uint32_t FileId() const { return fileId; }

private:
    static constexpr size_t kMostQueries = 8;
    // So many entries are asked for ahead of the reader. More would be old when they are read, and each would
    // be asked for again.
    static constexpr size_t kMostAhead = 4096;

    bool KnowsAbout(size_t index) const REQUIRES(lock)
    {
        return (isFolder && index < entries.size()) || IsOver();
    }
    // Where an open folder can be removed, its handle stays open for as long as the kernel has the folder
    // open.
    bool StaysOpen() const { return share->Has(nt::FODR_HOST_POSIX_NAMES); }
    bool IsOver() const REQUIRES(lock) { return ended && inFlight == 0; }
    bool IsFarAhead() const REQUIRES(lock)
    {
        return isFolder && StaysOpen() && !runsAhead && entries.size() > read &&
               entries.size() - read >= kMostAhead;
    }
    size_t PlanQueries() REQUIRES(lock);
    void SendQueries(size_t count);
    void OnAnswer(const IoResult &result, Clock::time_point asked);
    void Close();
    void TakeEntries(ByteSpan answer, Clock::time_point asked) REQUIRES(lock);

    const NodePtr node;
    const std::shared_ptr<RemoteShare> share;
    const uint32_t fileId;
    const bool ofRoot;
    const uint64_t wantedId;

    mutable Mutex lock;
    std::deque<Entry> entries GUARDED_BY(lock);
    std::vector<std::string> hidden GUARDED_BY(lock);
    struct Pending {
        size_t index;
        Waiter waiter;
    };
    std::vector<Pending> waiting GUARDED_BY(lock);
    bool isFolder GUARDED_BY(lock); // its own entry has shown that it is the one that was meant
    bool begun GUARDED_BY(lock) = false;
    size_t read GUARDED_BY(lock) = 0; // entries that somebody has asked for
    Clock::time_point readAt GUARDED_BY(lock){};
    bool waits GUARDED_BY(lock) = false;
    bool runsAhead GUARDED_BY(lock) = false;
    bool ended GUARDED_BY(lock) = false;
    bool closed GUARDED_BY(lock) = false;
    size_t inFlight GUARDED_BY(lock) = 0;
    size_t answered GUARDED_BY(lock) = 0;
    nt::NTSTATUS status GUARDED_BY(lock) = nt::STATUS_SUCCESS;
};

} // namespace fodr::agent
