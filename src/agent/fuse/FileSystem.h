// The file system that the kernel sees: each operation is a coroutine of remote file calls that answers its
// request from where the last outcome came in. No thread waits for the other side.
#pragma once

#include "agent/Coroutine.h"
#include "agent/TransferWindow.h"
#include "agent/fuse/Attributes.h"
#include "agent/fuse/DirectoryCache.h"
#include "agent/fuse/DirectoryListing.h"
#include "agent/fuse/FuseCall.h"
#include "agent/fuse/KeptHandles.h"
#include "agent/fuse/KernelNotifier.h"
#include "agent/fuse/NodeTable.h"
#include "agent/fuse/OpenedAhead.h"

#include <algorithm>
#include <string>

struct fuse_session;

namespace fodr::agent {

class ListingBuffer;

// What setattr changes.
struct AttributeChange {
    bool setSize = false, setMode = false, setUser = false, setGroup = false;
    uint64_t size = 0;
    mode_t mode = 0;
    Owner owner;
    bool setAccessTime = false, setWriteTime = false;
    timespec accessTime{}, writeTime{};
};

class FileSystem {
public:
    struct Options {
        bool folders = false; // shares are folders of the root
        double cacheSeconds = 1;
        // While a file is open for reading only, nobody opens it for writing, as far as that can be had. For
        // that the other side tells a file's facts with its opening.
        bool denyWriters = false;
        Owner owner;
    };
    explicit FileSystem(const Options &fileSystemOptions);

    // Shares come and go on reader threads. False: the share isn't shown.
    bool AddShare(std::shared_ptr<RemoteShare> share);
    void RemoveShare(uint32_t deviceId);
    bool HasShare() const;
    // Asks what the share's host offers (RemoteShare::Has), then calls the function; before AddShare.
    static Detached AskFeatures(std::shared_ptr<RemoteShare> share, InlineFunction<void()> done);

    // For the kernel's notices; null before the session ends.
    void SetSession(fuse_session *fuseSession);
    // When the kernel can't come any more, before the client goes: gives up what is open.
    void Clear();
    bool HasWritesInFlight() const { return writeWindow.InFlight() != 0; }
    InterruptWatch &Interrupts() { return interrupts; }

    // Operations, by their names in fuse_lowlevel_ops. Texts and bytes are borrowed for the call; `handle` is
    // what Opened or Created gave, 0 where the kernel gave none.
    Detached Lookup(FuseCall::Ptr call, uint64_t parentId, std::string name);
    void Forget(uint64_t nodeId, uint64_t lookups) { table.Forget(nodeId, lookups); }
    Detached GetAttributes(FuseCall::Ptr call, uint64_t nodeId);
    Detached SetAttributes(FuseCall::Ptr call, uint64_t nodeId, AttributeChange change, uint64_t handle);
    Detached ReadLink(FuseCall::Ptr call, uint64_t nodeId);
    Detached Access(FuseCall::Ptr call, uint64_t nodeId, int mask);
    Detached StatFs(FuseCall::Ptr call, uint64_t nodeId);

    Detached Open(FuseCall::Ptr call, uint64_t nodeId, int flags);
    Detached Create(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode, int flags);
    void Read(FuseCall::Ptr call, uint64_t handle, uint64_t offset, uint32_t length);
    void Write(FuseCall::Ptr call, uint64_t handle, uint64_t offset, ByteSpan bytes, int flags);
    void Flush(FuseCall::Ptr call, uint64_t handle);
    void Release(FuseCall::Ptr call, uint64_t handle);
    Detached Allocate(FuseCall::Ptr call, uint64_t handle, int mode, uint64_t offset, uint64_t length);

    Detached MakeDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached RemoveDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached Unlink(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached Rename(FuseCall::Ptr call, uint64_t parentId, std::string name, uint64_t newParentId,
                    std::string newName, unsigned flags);

    Detached OpenDirectory(FuseCall::Ptr call, uint64_t nodeId);
    Detached ReadDirectory(FuseCall::Ptr call, uint64_t handle, size_t size, uint64_t offset, bool plus);
    void ReleaseDirectory(FuseCall::Ptr call, uint64_t handle);

private:
    using Place = NodeTable::Place;
    // A name that was found, or why it wasn't.
    struct Found {
        nt::NTSTATUS status = nt::STATUS_SUCCESS;
        FileFacts facts;
        bool exact = true;               // else the name differs in case, and stands for a node of its own
        Node::Clock::time_point asked{}; // when the other side was
        RecentNames::ToldPtr told;       // where it was found without asking; else null

        uint64_t NodeId() const { return exact ? facts.id : 0; }
    };
    static Found NotFound(nt::NTSTATUS status)
    {
        Found found;
        found.status = status;
        return found;
    }
    // Whether the other side is asked, or what it told within the cache time will do.
    enum class Freshness { Asked, Cached };
    // An open directory of the kernel's.
    struct OpenListing {
        NodePtr node;
        std::shared_ptr<DirectoryListing> listing; // of shares: null
    };
    using OpenListingPtr = std::shared_ptr<OpenListing>;

    // FileSystem.cpp
    std::string FolderName(const RemoteDevice &device) const;
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
    void OnDirectoryChanged(const NodePtr &directory, InlineFunction<void()> next);
    // The node of what was found, with one more lookup.
    NodePtr Reach(const NodePtr &parent, const std::string &name, const FileFacts &facts, uint64_t fileId);
    // The name doesn't lead to the node any more, which the kernel may not know.
    void LoseName(const NodePtr &parent, const std::string &name, const NodePtr &node);
    void OnDirectoryLeft(const NodePtr &directory);
    using Children = std::vector<std::pair<std::string, NodePtr>>;
    void ForgetInKernel(const NodePtr &directory, const Children &children);
    Detached LookAgain(NodePtr node);
    // `asked` is when the facts were asked for; `lasting`: they are believed for a while.
    EntryAnswer AnswerFor(const NodePtr &parent, const NodePtr &node, const FileFacts &facts, bool lasting,
                          Node::Clock::time_point asked) const;
    // For how long the kernel may believe what was asked for then: of the names in the folder, and of the
    // node's attributes when its folder's are believed for that long.
    double NameSeconds(const NodePtr &folder, Node::Clock::time_point asked) const;
    double AttributeSeconds(const NodePtr &node, const FileFacts &facts, Node::Clock::time_point asked,
                            double folderSeconds) const;
    bool ReplyEntry(const FuseCall::Ptr &call, const NodePtr &parent, const NodePtr &node,
                    const FileFacts &facts, bool lasting, Node::Clock::time_point asked);
    bool ChangedBySelf(const NodePtr &parent, const std::string &name, Node::Clock::time_point asked) const;
    bool LocateForChange(const FuseCall::Ptr &call, const NodePtr &parent, const std::string &name,
                         Place *place) const;
    static void FailCreate(const FuseCall::Ptr &call, nt::NTSTATUS status);
    Task<bool> LocateConfirmed(FuseCall::Ptr call, NodePtr parent, std::string name, Place *place);

    // FileSystemLookup.cpp
    Task<Found> Find(NodePtr parent, std::string name, Freshness freshness = Freshness::Asked);
    Task<Found> FindPassing(NodePtr parent, std::string name, Freshness freshness);
    auto AwaitDirectory(const NodePtr &node)
    {
        return AwaitValues<nt::NTSTATUS, DirectoryHandlePtr>(
            [this, &node](DirectoryCache::Handler done) { directories.Acquire(node, std::move(done)); });
    }
    static auto AwaitChecked(const DirectoryHandlePtr &directory)
    {
        return AwaitValues<nt::NTSTATUS>([&directory](InlineFunction<void(nt::NTSTATUS)> done) {
            directory->WhenChecked(std::move(done));
        });
    }
    static void AskForNames(const DirectoryHandlePtr &directory);
    bool Recall(const NodePtr &parent, const std::string &name, const std::u16string &ntName,
                const DirectoryHandlePtr &directory, Found *found);
    Task<Found> FindByHandle(NodePtr parent, std::string name, Freshness freshness, bool *decided);
    Task<Found> FindByPath(Place place, bool follow);

    // FileSystemPlaces.cpp
    bool IsConfirmed(const NodePtr &parent, const NodePtr &node) const;
    Task<Nothing> Identify(NodePtr node);
    // Whether the folder is still where this side believes it to be. If it was moved, and it or what it is in
    // is open, it is found there. `Believing::Nothing` asks for every folder on the way.
    enum class Standing { Here, Gone, Replaced };
    enum class Believing { WhatWasSeen, Nothing };
    Task<Standing> Confirm(NodePtr folder, Believing believing = Believing::WhatWasSeen);
    Task<bool> FindMoved(NodePtr folder);
    // The place was absent: true when the folder turns out to be elsewhere, with the place there.
    Task<bool> FindPlaceAgain(NodePtr parent, std::string name, Place *place);

    // FileSystemFacts.cpp
    Task<Found> FactsOf(NodePtr node, Freshness freshness = Freshness::Asked);
    Task<Found> FactsByName(NodePtr node, Freshness freshness);
    Task<Found> FactsOfDirectory(NodePtr node);

    // FileSystemAttributes.cpp
    struct Borrowed { // a handle to change a file with
        nt::NTSTATUS status = nt::STATUS_SUCCESS;
        std::shared_ptr<RemoteShare> share;
        uint32_t fileId = 0;
        OpenFilePtr file; // whose handle it is; null: to be closed
    };
    Task<Borrowed> BorrowHandle(NodePtr node, OpenFilePtr file, bool forData);
    void GiveBack(const NodePtr &node, const Borrowed &borrowed);
    // `facts` are those after the change, as far as `*known` says so.
    Task<nt::NTSTATUS> ChangeBasics(const Borrowed &borrowed, const AttributeChange &change, bool directory,
                                    FileFacts *facts, bool *known);

    // FileSystemOpen.cpp
    OpenFilePtr NewOpen(const NodePtr &node, const std::shared_ptr<RemoteShare> &share, uint32_t fileId,
                        uint32_t access);
    uint64_t Keep(const OpenFilePtr &file, bool isNew = false);
    uint32_t AccessOf(int flags, const RemoteShare &share) const;
    Task<IoResult> OpenAt(const Place &place, const RemoteShare::CreateCall &open); // which outlive the wait
    Task<IoResult> OpenNode(NodePtr node, Place place, RemoteShare::CreateCall open);
    Task<IoResult> OpenToRead(NodePtr node, Place place, RemoteShare::CreateCall open, FileFacts *facts);
    struct Opening {                              // an open of a file that is known by its id
        nt::NTSTATUS status = nt::STATUS_SUCCESS; // STATUS_FILE_DELETED: the kernel has to look again
        OpenFilePtr file;
        FileFacts facts;
    };
    Task<bool> LosesName(NodePtr node);
    Task<Opening> OpenFileOf(NodePtr node, Place place, int flags, uint32_t access);
    OpenFilePtr Lend(const OpenFilePtr &lender);
    Task<nt::NTSTATUS> Truncate(NodePtr node, std::shared_ptr<RemoteShare> share, uint32_t fileId);
    void OpenedAnother(const NodePtr &parent, const std::string &name,
                       const std::shared_ptr<RemoteShare> &share, uint32_t fileId, uint32_t access,
                       const FileFacts &facts);
    bool FollowsLinks(const NodePtr &node, const Place &place) const;
    void PrimeReading(const OpenFilePtr &file);
    void CloseLater(const NodePtr &node, const std::shared_ptr<RemoteShare> &share, uint32_t fileId);

    // FileSystemNames.cpp
    struct Moving { // a rename
        NodePtr parent, newParent;
        std::string name, newName;
        Place source, target;
        uint32_t fileId = 0; // what is being renamed
    };
    static RemoteShare::CreateCall OpenToDelete(bool directory);
    Task<nt::NTSTATUS> RemoveAtOnce(Place place, NodePtr node, bool directory);
    Task<nt::NTSTATUS> RemoveFolder(NodePtr parent, std::string name, Place place);
    Task<nt::NTSTATUS> MoveAtOnce(Moving moving, bool replace);
    Task<nt::NTSTATUS> TryMoveAtOnce(Moving moving, bool replace);
    Task<Nothing> ClearTheWay(NodePtr node);
    Task<bool> ClearLeftovers(NodePtr folder);

    // FileSystemHidden.cpp: towards hosts where a name stays as long as its file is open.
    std::string HiddenName();
    Task<nt::NTSTATUS> DeleteDirectory(Place place);
    Task<nt::NTSTATUS> DeleteFileAt(const Place &place);
    Task<nt::NTSTATUS> DeleteOpened(const Place &place, uint32_t fileId);
    Task<nt::NTSTATUS> ClearReadOnly(const Place &place);
    Task<IoResult> OpenForDeletion(const Place &place);
    Task<nt::NTSTATUS> DeleteOpenFile(NodePtr parent, std::string name, NodePtr node, Place place);
    void CloseDeletion(const NodePtr &node, const std::shared_ptr<RemoteShare> &share);
    Task<bool> AwaitClosesBelow(NodePtr folder);
    Task<nt::NTSTATUS> RemoveFile(NodePtr parent, std::string name, Place place);
    Task<nt::NTSTATUS> Move(Moving moving, bool replace);
    Task<nt::NTSTATUS> RenameOver(Moving moving, nt::NTSTATUS refusal);
    Task<nt::NTSTATUS> RenameOverOpenFile(Moving moving, NodePtr targetNode);

    // FileSystemList.cpp
    Task<nt::NTSTATUS> BeginListing(OpenListingPtr open);
    Task<bool> ListsAnother(const OpenListing &open);
    static bool IsKnown(const DirectoryListing &listing, const DirectoryListing::Entry &entry);
    bool IsKnownBetter(const NodePtr &folder, const DirectoryListing::Entry &entry,
                       Node::Clock::time_point asked) const;
    void FillListing(const OpenListing &open, uint64_t offset, ListingBuffer *buffer,
                     std::vector<uint64_t> *reached);

    const Options options;
    NodeTable table;
    TransferWindow readWindow, writeWindow;
    KeptHandles<OpenFile> openFiles;
    KeptHandles<OpenListing> openListings;
    DirectoryCache directories;
    OpenedAhead openedAhead;
    KernelNotifier notifier;
    InterruptWatch interrupts;
    std::atomic<fuse_session *> session{nullptr};
    std::atomic<uint32_t> hiddenCounter{0};
    const uint32_t hiddenSeed;
    std::atomic<uint32_t> rootDevice{0}; // of the share that is the root
};

} // namespace fodr::agent
