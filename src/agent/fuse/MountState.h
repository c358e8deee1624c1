// What the operations of one mount share: what it knows of files and names, what is open, and for how long
// the kernel may believe what it is told.
#pragma once

#include "agent/Coroutine.h"
#include "agent/TransferWindow.h"
#include "agent/fuse/DirectoryCache.h"
#include "agent/fuse/DirectoryListing.h"
#include "agent/fuse/FuseCall.h"
#include "agent/fuse/KernelNotifier.h"
#include "agent/fuse/NodeTable.h"
#include "agent/fuse/OpenedAhead.h"
#include "agent/fuse/PosixMapping.h"
#include "lib/misc/Mutex.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

struct fuse_session;

namespace fodr::agent {

// What the kernel has open, by the numbers that it is given for it. Any thread.
template <class Thing> class KeptHandles {
public:
    using Pointer = std::shared_ptr<Thing>;

    // The number holds until Drop is called for it; the kernel makes no mistakes with it.
    uint64_t Keep(Pointer thing)
    {
        auto kept = std::make_unique<Pointer>(std::move(thing));
        Pointer *place = kept.get();
        const MutexLock held(lock);
        places.insert(place);
        kept.release();
        return reinterpret_cast<uint64_t>(place);
    }
    static const Pointer &Of(uint64_t handle) { return *reinterpret_cast<Pointer *>(handle); }
    Pointer Drop(uint64_t handle)
    {
        std::unique_ptr<Pointer> place(reinterpret_cast<Pointer *>(handle));
        const MutexLock held(lock);
        places.erase(place.get());
        return std::move(*place);
    }
    // Takes all that is left, when the kernel can't come any more.
    std::vector<Pointer> DropAll()
    {
        std::vector<Pointer> things;
        const MutexLock held(lock);
        for (Pointer *place : places) {
            things.push_back(std::move(*place));
            delete place;
        }
        places.clear();
        return things;
    }

private:
    Mutex lock;
    std::unordered_set<Pointer *> places GUARDED_BY(lock);
};

using Place = NodeTable::Place;

// A name that was found, or why it wasn't.
struct Found {
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    FileFacts facts;
    bool exact = true;               // else the name differs in case, and stands for a node of its own
    Node::Clock::time_point asked{}; // when the other side was
    RecentNames::ToldPtr told;       // where it was found without asking; else null

    static Found Failure(nt::NTSTATUS why)
    {
        Found found;
        found.status = why;
        return found;
    }
    uint64_t NodeId() const { return exact ? facts.id : 0; }
};

// Whether the other side is asked, or what it told within the cache time will do.
enum class Freshness { Asked, Cached };

// An open directory of the kernel's.
struct OpenListing {
    NodePtr node;
    std::shared_ptr<DirectoryListing> listing; // of shares: null
};
using OpenListingPtr = std::shared_ptr<OpenListing>;

// Who is told what happens to folders: something has changed in one that is watched (`last`: and no notice
// comes any more), one is watched from now on, one is in use.
class IFolderObserver {
public:
    virtual ~IFolderObserver() = default;
    virtual void OnChanged(const NodePtr &folder, bool last) = 0;
    virtual void OnWatched(const NodePtr &folder) = 0;
    virtual void OnUsed(const NodePtr &folder) = 0;
};

// Any thread.
class MountState {
public:
    struct Options {
        bool folders = false; // shares are folders of the root
        double cacheSeconds = 1;
        // While a file is open for reading only, nobody opens it for writing, as far as that can be had. For
        // that the other side tells a file's facts with its opening.
        bool denyWriters = false;
        bool events = true; // programs in the mount get events of what the owner does
        Owner owner;
    };
    explicit MountState(const Options &mountOptions);

    const Options options;
    IFolderObserver *observer = nullptr; // set before anything happens; may stay null
    NodeTable table;
    TransferWindow readWindow, writeWindow;
    KeptHandles<RemoteFile> openFiles;
    KeptHandles<OpenListing> openListings;
    DirectoryCache directories;
    OpenedAhead openedAhead;
    KernelNotifier notifier;
    // Of files' bytes alone, before writes are answered: a write holds its file, and whoever waits for the
    // file may hold the folder that another notice waits for.
    KernelNotifier dataNotifier;
    std::atomic<fuse_session *> session{nullptr}; // null before the session and after it

    // For how long what was told is believed: where a notice would correct it, and where none would.
    Node::Clock::duration CacheSpan() const
    {
        return std::chrono::duration_cast<Node::Clock::duration>(
            std::chrono::duration<double>(options.cacheSeconds));
    }
    Node::Clock::duration UnwatchedSpan() const
    {
        return std::min<Node::Clock::duration>(CacheSpan(), std::chrono::milliseconds(400));
    }

    // The node of what was found, with one more lookup.
    NodePtr Reach(const NodePtr &parent, const std::string &name, const FileFacts &facts, uint64_t fileId);
    // The name doesn't lead to the node any more, which the kernel may not know.
    void LoseName(const NodePtr &parent, const std::string &name, const NodePtr &node);
    bool ChangedBySelf(const NodePtr &parent, const std::string &name, Node::Clock::time_point asked) const;
    bool FollowsLinks(const NodePtr &node, const Place &place) const;

    // For how long the kernel may believe what was asked for then: of the names in the folder, and of the
    // node's attributes when its folder's are believed for that long.
    double NameSeconds(const NodePtr &folder, Node::Clock::time_point asked) const;
    double AttributeSeconds(const NodePtr &node, const FileFacts &facts, Node::Clock::time_point asked,
                            double folderSeconds) const;
    // `asked` is when the facts were asked for; `lasting`: they are believed for a while.
    EntryAnswer AnswerFor(const NodePtr &parent, const NodePtr &node, const FileFacts &facts, bool lasting,
                          Node::Clock::time_point asked) const;
    bool ReplyEntry(const FuseCall::Ptr &call, const NodePtr &parent, const NodePtr &node,
                    const FileFacts &facts, bool lasting, Node::Clock::time_point asked);
    void ReplyAttributes(const FuseCall::Ptr &call, const NodePtr &node, const Found &found) const;

    auto AwaitDirectory(const NodePtr &node)
    {
        return AwaitValues<nt::NTSTATUS, DirectoryHandlePtr>(
            [this, &node](DirectoryCache::Handler done) { directories.Acquire(node, std::move(done)); });
    }
    // Counts as one of the node's handles until it is closed; the node may be null.
    void CloseLater(const NodePtr &node, const std::shared_ptr<RemoteShare> &share, uint32_t fileId);

private:
    using Children = std::vector<std::pair<std::string, NodePtr>>;
    void OnDirectoryChanged(const NodePtr &directory, InlineFunction<void()> next);
    void OnDirectoryLeft(const NodePtr &directory);
    void ForgetInKernel(const NodePtr &directory, const Children &children);
    Detached LookAgain(NodePtr node);
};

inline auto AwaitChecked(const DirectoryHandlePtr &directory)
{
    return AwaitValues<nt::NTSTATUS>(
        [&directory](InlineFunction<void(nt::NTSTATUS)> done) { directory->WhenChecked(std::move(done)); });
}

} // namespace fodr::agent
