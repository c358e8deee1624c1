// What the kernel asks of the mount, a class for each concern. FileSystem has one of each; FuseOperations
// calls them. Each operation is a coroutine that answers its call. `handle` is the number that the kernel was
// given for an open file or listing.
#pragma once

#include "agent/fuse/FileOpener.h"
#include "agent/fuse/LockOwners.h"
#include "agent/fuse/MountState.h"
#include "agent/fuse/NameFinder.h"
#include "agent/fuse/PlaceFinder.h"
#include "agent/fuse/StickyNames.h"
#include "agent/fuse/Waits.h"

#include <atomic>

namespace fodr::agent {

class ReaddirBuffer;

// Listing folders.
class DirectoryOperations {
public:
    DirectoryOperations(MountState &mountState, PlaceFinder &placeFinder)
        : mount(mountState), places(placeFinder)
    {}

    Detached OpenDirectory(FuseCall::Ptr call, uint64_t nodeId);
    Detached ReadDirectory(FuseCall::Ptr call, OpenListingPtr open, size_t size, uint64_t offset, bool plus);
    void ReleaseDirectory(FuseCall::Ptr call, uint64_t handle);

    // Opens `open->node` and makes its listing.
    Task<nt::NTSTATUS> BeginListing(OpenListingPtr open);

private:
    Task<bool> ListsAnother(const OpenListing &open);
    void WaitForReader(const std::shared_ptr<DirectoryListing> &listing);
    bool IsKnownBetter(const NodePtr &folder, const DirectoryListing::Entry &entry) const;
    void FillListing(const OpenListing &open, uint64_t offset, ReaddirBuffer *buffer,
                     std::vector<uint64_t> *reached);

    MountState &mount;
    PlaceFinder &places;
};

// Opening, reading and writing files.
class FileOperations {
public:
    FileOperations(MountState &mountState, PlaceFinder &placeFinder, FileOpener &fileOpener,
                   StickyNames &stickyNames)
        : mount(mountState), places(placeFinder), opener(fileOpener), hidden(stickyNames)
    {}

    Detached Open(FuseCall::Ptr call, uint64_t nodeId, int flags);
    Detached Create(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode, int flags);
    void Read(FuseCall::Ptr call, const RemoteFilePtr &file, uint64_t offset, uint32_t length);
    void Write(FuseCall::Ptr call, const RemoteFilePtr &file, uint64_t offset, ByteSpan bytes, int flags);
    void Flush(FuseCall::Ptr call, const RemoteFilePtr &file);
    void Release(FuseCall::Ptr call, uint64_t handle);

private:
    Task<nt::NTSTATUS> Truncate(NodePtr node, std::shared_ptr<RemoteShare> share, uint32_t fileId);
    Task<bool> LocateToOpen(FuseCall::Ptr call, NodePtr node, int flags, Place *place);

    MountState &mount;
    PlaceFinder &places;
    FileOpener &opener;
    StickyNames &hidden;
};

// What setattr changes.
struct AttributeChange {
    bool setSize = false, setMode = false, setUser = false, setGroup = false;
    uint64_t size = 0;
    mode_t mode = 0;
    Owner owner;
    bool setAccessTime = false, setWriteTime = false;
    timespec accessTime{}, writeTime{};

    bool SetsTimes() const { return setAccessTime || setWriteTime; }
    bool SetsModeOrOwner() const { return setMode || setUser || setGroup; }
};

// What files are: their facts and how they are changed, where links lead, what may be done, how much room
// there is.
class AttributeOperations {
public:
    AttributeOperations(MountState &mountState, PlaceFinder &placeFinder, FactsFinder &findsFacts)
        : mount(mountState), places(placeFinder), factsFinder(findsFacts)
    {}

    Detached GetAttributes(FuseCall::Ptr call, uint64_t nodeId);
    // `file` is null where the kernel gave none.
    Detached SetAttributes(FuseCall::Ptr call, uint64_t nodeId, AttributeChange change, RemoteFilePtr file);
    Detached ReadLink(FuseCall::Ptr call, uint64_t nodeId);
    Detached Access(FuseCall::Ptr call, uint64_t nodeId, int mask);
    Detached StatFs(FuseCall::Ptr call, uint64_t nodeId);

private:
    struct Borrowed { // a handle to change a file with
        nt::NTSTATUS status = nt::STATUS_SUCCESS;
        std::shared_ptr<RemoteShare> share;
        uint32_t fileId = 0;
        RemoteFilePtr file; // whose handle it is; null: to be closed
    };
    Task<Borrowed> BorrowHandle(NodePtr node, RemoteFilePtr file, bool forData);
    void GiveBack(const NodePtr &node, const Borrowed &borrowed);
    int Refusal(const NodePtr &node, const AttributeChange &change, bool byHandle) const;
    struct Changed {
        Borrowed borrowed;
        std::shared_ptr<FactsUnderway> identity; // of what was opened for the change
        FileFacts facts;                         // after the change, if they are known
        bool known = false;
    };
    // References outlive the wait.
    Task<nt::NTSTATUS> CheckIdentity(NodePtr node, std::shared_ptr<FactsUnderway> identity);
    Task<nt::NTSTATUS> SetSize(NodePtr node, const Borrowed &borrowed, uint64_t size);
    Task<nt::NTSTATUS> Change(NodePtr node, const AttributeChange &change, Changed *changed);
    Task<nt::NTSTATUS> ChangeMode(const Borrowed &borrowed, const AttributeChange &change);
    Task<nt::NTSTATUS> ChangeBasics(const Borrowed &borrowed, const AttributeChange &change, bool directory,
                                    FileFacts *changed, bool *known);
    Task<Found> FactsAfter(NodePtr node, const Changed &changed);

    MountState &mount;
    PlaceFinder &places;
    FactsFinder &factsFinder;
};

// Looking names up; making, removing and renaming them.
class NameOperations {
public:
    NameOperations(MountState &mountState, NameFinder &nameFinder, PlaceFinder &placeFinder,
                   FactsFinder &findsFacts, StickyNames &stickyNames,
                   DirectoryOperations &directoryOperations)
        : mount(mountState), finder(nameFinder), places(placeFinder), factsFinder(findsFacts),
          hidden(stickyNames), listings(directoryOperations)
    {}

    Detached Lookup(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached MakeDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode);
    Detached MakeLink(FuseCall::Ptr call, uint64_t parentId, std::string name, std::string target);
    // A file, a FIFO or a socket.
    Detached MakeNode(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode);
    Detached RemoveDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached Unlink(FuseCall::Ptr call, uint64_t parentId, std::string name);
    Detached Rename(FuseCall::Ptr call, uint64_t parentId, std::string name, uint64_t newParentId,
                    std::string newName, unsigned flags);

private:
    Task<nt::NTSTATUS> MakeFile(NodePtr parent, std::string name, Place *place, mode_t mode,
                                const std::vector<uint8_t> &reparseRecord);
    Task<Nothing> MakeSpecial(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode,
                              std::string target);
    Task<Nothing> LookupShare(FuseCall::Ptr call, std::string name);
    Task<bool> FindAgain(FuseCall::Ptr call, NodePtr parent, std::string name, NodePtr known, Found *found);
    Task<nt::NTSTATUS> RemoveAtOnce(Place place, NodePtr node, bool directory);
    Task<nt::NTSTATUS> RemoveFolder(NodePtr parent, std::string name, Place place);
    Task<nt::NTSTATUS> MoveAtOnce(Moving moving, bool replace);
    Task<nt::NTSTATUS> TryMoveAtOnce(Moving moving, bool replace);
    void NoteMoved(const Moving &moving, const NodePtr &node, uint64_t movedId);
    Task<bool> ClearLeftovers(NodePtr folder);

    MountState &mount;
    NameFinder &finder;
    PlaceFinder &places;
    FactsFinder &factsFinder;
    StickyNames &hidden;
    DirectoryOperations &listings;
};

// Further names of files, and names that change places.
class LinkOperations {
public:
    LinkOperations(MountState &mountState, PlaceFinder &placeFinder) : mount(mountState), places(placeFinder)
    {}

    Detached Link(FuseCall::Ptr call, uint64_t nodeId, uint64_t newParentId, std::string newName);
    Detached Exchange(FuseCall::Ptr call, uint64_t parentId, std::string name, uint64_t newParentId,
                      std::string newName);

private:
    Task<bool> Locate(FuseCall::Ptr call, Moving *moving, uint32_t feature, int refusal);
    // Opens the source and gives it, or what it is exchanged with, the new name. `facts` are of the source,
    // after a link and before an exchange.
    enum class Change { Link, Exchange };
    Task<nt::NTSTATUS> Try(Moving moving, Change change, FileFacts *facts);
    Task<nt::NTSTATUS> Apply(Moving *moving, Change change, FileFacts *facts);
    Task<nt::NTSTATUS> NameIt(Moving moving, uint32_t fileId, DirectoryHandlePtr folder, Change change,
                              FileFacts *facts);
    void NoteExchanged(const Moving &moving);

    MountState &mount;
    PlaceFinder &places;
};

// Ranges of open files: space, holes, and bytes that are copied within the host.
class RangeOperations {
public:
    explicit RangeOperations(MountState &mountState) : mount(mountState) {}

    // As fallocate(2).
    Detached Allocate(FuseCall::Ptr call, RemoteFilePtr file, int mode, uint64_t offset, uint64_t length);
    // As lseek(2) with SEEK_DATA or SEEK_HOLE.
    Detached Seek(FuseCall::Ptr call, RemoteFilePtr file, uint64_t offset, int whence);
    // As copy_file_range(2).
    Detached Copy(FuseCall::Ptr call, RemoteFilePtr reader, off_t from, RemoteFilePtr writer, off_t to,
                  size_t length);

private:
    Task<nt::NTSTATUS> ZeroRange(RemoteFilePtr file, uint64_t offset, uint64_t length);
    Task<nt::NTSTATUS> ReserveRange(RemoteFilePtr file, uint32_t mode, uint64_t offset, uint64_t length);
    Task<bool> FindNext(RemoteFilePtr file, int whence, uint64_t end, uint64_t *found);
    Task<nt::NTSTATUS> Grow(RemoteFilePtr file, uint64_t size);

    MountState &mount;
};

// Extended attributes of users, which are named streams of the other side: "user.NAME" is the stream of that
// whole name, "user.DosStream.NAME:$DATA" with a zero at its end the stream NAME. Other kinds of attributes
// are answered without a request.
class XattrOperations {
public:
    XattrOperations(MountState &mountState, PlaceFinder &placeFinder) : mount(mountState), places(placeFinder)
    {}

    // `room` is the caller's; 0: it asks for the size.
    Detached Get(FuseCall::Ptr call, uint64_t nodeId, std::string name, size_t room);
    Detached List(FuseCall::Ptr call, uint64_t nodeId, size_t room);
    // As setxattr(2).
    Detached Set(FuseCall::Ptr call, uint64_t nodeId, std::string name, std::vector<uint8_t> value,
                 int flags);
    Detached Remove(FuseCall::Ptr call, uint64_t nodeId, std::string name);

private:
    enum class Use { Reads, Changes };
    Task<bool> Locate(FuseCall::Ptr call, NodePtr node, std::string attribute, Use use, Place *place);
    Task<nt::NTSTATUS> CheckFile(NodePtr node, std::shared_ptr<RemoteShare> share, uint32_t fileId);
    Task<uint32_t> OpenFileItself(FuseCall::Ptr call, NodePtr node, Place place);
    Task<IoResult> OpenStream(NodePtr node, Place place, std::string name, RemoteShare::CreateCall open);
    Task<nt::NTSTATUS> Store(NodePtr node, Place place, std::string name, std::vector<uint8_t> value,
                             uint32_t disposition);

    MountState &mount;
    PlaceFinder &places;
};

// Locks of fcntl and flock, which the host takes for the mount's programs.
class LockOperations {
public:
    LockOperations(MountState &mountState, PlaceFinder &placeFinder, FileOpener &fileOpener)
        : mount(mountState), places(placeFinder), opener(fileOpener)
    {}

    Detached GetLock(FuseCall::Ptr call, RemoteFilePtr file, LockWish wish);
    Detached SetLock(FuseCall::Ptr call, RemoteFilePtr file, LockWish wish, bool waits);
    // A process has closed a descriptor of the file: its locks go, and then `next` is called.
    using Next = InlineFunction<void(const RemoteFilePtr &file)>;
    Detached Closed(RemoteFilePtr file, uint64_t owner, Next next);
    // Nobody has it open any more.
    void Released(const RemoteFilePtr &file);
    // Whether locks that were taken through the open file went with a connection: what they kept whole may
    // have changed since.
    bool AreLost(const RemoteFilePtr &file) const;
    void Clear() { owners.Clear(); }

private:
    Task<RemoteFilePtr> OpenHandle(RemoteFilePtr file, nt::NTSTATUS *status);
    Task<RemoteFilePtr> OpenByName(NodePtr node, Place place, uint32_t access, nt::NTSTATUS *status);
    RemoteFilePtr ShareHandle(const RemoteFilePtr &file) const;
    Task<nt::NTSTATUS> TryLock(LockOwnerPtr owner, RemoteFilePtr file, LockWish wish);
    Task<nt::NTSTATUS> WaitForLock(FuseCall::Ptr call, LockOwnerPtr owner, RemoteFilePtr file, LockWish wish);
    Task<nt::NTSTATUS> Unlock(LockOwnerPtr owner, LockWish wish);
    Task<LockFound> TryForAMoment(LockOwnerPtr owner, RemoteFilePtr file, LockWish wish);
    Task<Nothing> Restore(LockOwnerPtr owner, LockWish wish, LockRanges before);
    Task<Nothing> SeeOthersChanges(NodePtr node);
    Task<Nothing> DropAlone(LockOwnerPtr owner);
    Task<Nothing> Drop(LockOwnerPtr owner);
    Task<Nothing> End(LockOwnerPtr owner);
    Detached LeaveFile(LockOwnerPtr owner, RemoteFilePtr file);

    // Shared memory (LockOperationsSide.cpp).
    bool IsSharedMemory(const NodePtr &node) const;
    static LockWish Shifted(const LockWish &wish);
    static std::optional<LockedRange> Unshifted(std::optional<LockedRange> range);
    Task<nt::NTSTATUS> TakeSide(RemoteFilePtr file);
    Task<Nothing> LeaveSide(NodePtr node);
    Task<LockFound> QuerySide(RemoteFilePtr file, LockWish wish);

    MountState &mount;
    PlaceFinder &places;
    FileOpener &opener;
    LockOwners owners;
};

} // namespace fodr::agent
