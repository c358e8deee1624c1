#include "agent/fuse/Fuse.h"
#include "agent/fuse/Operations.h"
#include "agent/fuse/PosixMapping.h"
#include "agent/fuse/Waits.h"
#include "platform/Nt.h"

#include <fcntl.h>

#include <cerrno>

namespace fodr::agent {
namespace {

bool WantsWrite(int flags)
{
    return (flags & O_ACCMODE) != O_RDONLY;
}

// What is appended goes where the kernel doesn't know. Before each write that it caches, the kernel asks
// about rights (security.capability); who only writes has nothing of the cache. But only a cached write takes
// the set-id bits away, so a file with such bits is cached.
bool IsDirect(int flags, uint32_t mode)
{
    const bool onlyWrites = (flags & O_ACCMODE) == O_WRONLY;
    return (flags & O_APPEND) || (onlyWrites && (mode & (S_ISUID | S_ISGID)) == 0);
}

FuseCall::Caching CachingOf(const RemoteFilePtr &file)
{
    return file->direct ? FuseCall::Caching::Direct : FuseCall::Caching::Allowed;
}

RemoteShare::CreateCall CreateCallOf(const RemoteShare &share, uint32_t access, mode_t mode, int flags)
{
    RemoteShare::CreateCall create = {.desiredAccess = access,
                                      .createDisposition = nt::FILE_OPEN_IF,
                                      .createOptions = nt::FILE_NON_DIRECTORY_FILE,
                                      .fileAttributes = nt::FILE_ATTRIBUTE_NORMAL};
    if (share.LinksOfMount() == LinkView::Hide) // the name may be a link's
        create.createOptions |= nt::FILE_OPEN_REPARSE_POINT;
    if (flags & O_EXCL)
        create.createDisposition = nt::FILE_CREATE;
    else if (flags & O_TRUNC)
        create.createDisposition = nt::FILE_OVERWRITE_IF;
    if (share.Has(nt::FODR_HOST_MODES))
        create.allocationSize = nt::FODR_CREATE_WITH_MODE | (mode & nt::FODR_MODE_BITS);
    else if ((mode & S_IWUSR) == 0)
        create.fileAttributes = nt::FILE_ATTRIBUTE_READONLY;
    return create;
}

// Held until the open counts as one of the file's.
class WritableOpen {
public:
    explicit WritableOpen(NodePtr openNode) : node(std::move(openNode))
    {
        if (node)
            node->opens.BeginWritableOpen();
    }
    ~WritableOpen()
    {
        if (node)
            node->opens.EndWritableOpen();
    }
    WritableOpen(const WritableOpen &) = delete;
    WritableOpen &operator=(const WritableOpen &) = delete;

private:
    const NodePtr node;
};

} // namespace

// Where the file is, if it can be opened like that. False: it can't, and the call is answered.
Task<bool> FileOperations::LocateToOpen(FuseCall::Ptr call, NodePtr node, int flags, Place *place)
{
    NodePtr parent;
    std::string name;
    // Its folder may have been moved.
    if (node && !mount.table.PlaceOf(node, place) && mount.table.ParentAndNameOf(node, &parent, &name))
        co_await places.Confirm(parent);
    const bool found =
        node && (mount.table.PlaceOf(node, place) || (mount.table.FormerPlaceOf(node, &parent, &name) &&
                                                      mount.table.PlaceIn(parent, name, place)));
    int refusal = 0;
    if (!found)
        refusal = ESTALE;
    else if ((flags & O_TRUNC) && place->share->HasIds() && node->IsInOtherCase())
        refusal =
            EEXIST; // it may have been meant to make a file: the kernel says so only where it knew of none
    else if (node->MustBeLookedUp())
        refusal = ESTALE;
    else if ((WantsWrite(flags) || (flags & O_TRUNC)) && place->share->Device().IsReadOnly())
        refusal = EROFS;
    else if (place->share->HasIds() && co_await opener.LosesName(node))
        refusal = ESTALE;
    if (refusal != 0)
        call->Fail(refusal);
    co_return refusal == 0;
}

Detached FileOperations::Open(FuseCall::Ptr call, uint64_t nodeId, int flags)
{
    const NodePtr node = mount.table.Find(nodeId);
    const bool truncates = (flags & O_TRUNC) != 0;
    const WritableOpen opens(truncates || WantsWrite(flags) ? node : nullptr);
    Place place;
    if (!co_await LocateToOpen(call, node, flags, &place))
        co_return;
    const uint32_t access = opener.AccessOf(flags, *place.share) | (truncates ? nt::FILE_WRITE_DATA : 0);
    Opening opening;
    if (place.share->HasIds())
        opening = co_await opener.OpenFileOf(node, place, flags, access, call->Caller());
    else
        opening = co_await opener.OpenByName(node, place, flags, access);
    if (nt::IsError(opening.status)) {
        // The kernel looks the name up again, and knows then.
        NodePtr parent;
        std::string name;
        if (mount.table.ParentAndNameOf(node, &parent, &name))
            mount.directories.ForgetNames(parent);
        if (place.share->LinksOfMount() == LinkView::Follow && SaysAbsent(opening.status))
            call->Fail(ENOENT); // a link that leads nowhere is no stale name
        else
            call->FailOfFile(opening.status);
        co_return;
    }
    const RemoteFilePtr file = std::move(opening.file);
    if (truncates) {
        const nt::NTSTATUS status = co_await Truncate(node, file->share, file->fileId);
        if (nt::IsError(status)) {
            call->FailStatus(status);
            co_return;
        }
    } else if (place.share->HasIds()) {
        node->NoteFactsOfOpen(opening.facts);
    }
    file->direct = IsDirect(flags, opening.facts.mode);
    const uint64_t handle = opener.Keep(file);
    // Whoever opens a file sees it as it is by now, also its size. The node is in use, so this doesn't wait.
    if (fuse_session *const told = file->readable ? mount.session.load() : nullptr)
        fuse_lowlevel_notify_inval_inode(told, node->id, -1, 0);
    if (file->readable && !place.share->HasIds())
        opener.PrimeReading(file);
    if (!call->Opened(handle, CachingOf(file)))
        Release(nullptr, handle);
}

// Not by overwriting: that would take attributes and streams along.
Task<nt::NTSTATUS> FileOperations::Truncate(NodePtr node, std::shared_ptr<RemoteShare> share, uint32_t fileId)
{
    const std::shared_ptr<WriteBehind> writes = node->Writes(mount.writeWindow);
    co_await AwaitWrites(writes);
    node->NoteOwnChange();
    writes->SizeChanges();
    const nt::NTSTATUS status = co_await share->SetEndOfFile(fileId, 0);
    writes->SizeChanged(status, 0);
    node->NoteOwnChange();
    co_return status;
}

Detached FileOperations::Create(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode,
                                int flags)
{
    const NodePtr parent = mount.table.Find(parentId);
    Place place;
    if (!co_await places.LocateConfirmed(call, parent, name, &place))
        co_return;
    const uint32_t access = opener.AccessOf(flags, *place.share);
    const RemoteShare::CreateCall create = CreateCallOf(*place.share, access, mode, flags);
    parent->NoteOwnChange();
    IoResult opened = co_await opener.OpenAt(place, create);
    if (SaysAbsent(opened.status) && co_await places.FindPlaceAgain(parent, name, &place))
        opened = co_await opener.OpenAt(place, create);
    if (opened.Failed()) {
        call->FailInFolder(opened.status);
        co_return;
    }
    parent->NoteOwnChange();
    const uint32_t fileId = opened.fileId;
    const bool isNew = opened.information == nt::FILE_CREATED;
    FileFacts facts;
    facts.attributes = create.fileAttributes;
    const auto asked = Node::Clock::now();
    const bool hasIds = place.share->HasIds();
    if (!isNew) {
        const nt::NTSTATUS status = co_await place.share->QueryFacts(fileId, &facts);
        if (nt::IsError(status) && hasIds) {
            place.share->Close(fileId, [](const IoResult &) {});
            call->FailStatus(status);
            co_return;
        }
        if (facts.IsSymbolicLink()) {
            place.share->Close(fileId, [](const IoResult &) {});
            call->Fail(EEXIST);
            co_return;
        }
    } else {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        if (place.share->Has(nt::FODR_HOST_MODES))
            facts.mode = S_IFREG | (mode & nt::FODR_MODE_BITS);
        facts.creationTime = facts.lastAccessTime = facts.lastWriteTime = facts.changeTime = NtTimeOf(now);
    }
    const NodePtr node = hasIds && isNew ? mount.table.ReachNew(parent, name, NodeKind::File)
                                         : mount.table.Reach(parent, name, NodeKind::File, facts.id);
    const std::shared_ptr<WriteBehind> writes = node->Writes(mount.writeWindow);
    writes->DataChanged();
    writes->NoteFacts(facts, isNew ? writes->Generation() : 0);
    node->NoteFacts(facts);
    node->NoteOwnChange();
    const RemoteFilePtr file = opener.NewOpen(node, place.share, fileId, access);
    file->direct = IsDirect(flags, facts.mode);
    const uint64_t handle = opener.Keep(file, isNew);
    // Its times are this machine's guess: they hold until somebody asks.
    if (!call->Created(mount.AnswerFor(parent, node, facts, false, asked), handle, CachingOf(file))) {
        mount.table.Forget(node->id, 1);
        Release(nullptr, handle);
    }
}

void FileOperations::Read(FuseCall::Ptr call, const RemoteFilePtr &file, uint64_t offset, uint32_t length)
{
    if (!file->readable) {
        call->Fail(EBADF);
        return;
    }
    // What is being written there is read as it will be.
    file->node->Writes(mount.writeWindow)->WhenRangeDone(offset, length, [call, file, offset, length] {
        file->readAhead->Read(offset, length, [call](nt::NTSTATUS status, std::span<const ByteSpan> parts) {
            if (nt::IsError(status))
                call->FailStatus(status);
            else
                call->Parts(parts);
        });
    });
}

void FileOperations::Write(FuseCall::Ptr call, const RemoteFilePtr &file, uint64_t offset, ByteSpan bytes,
                           int flags)
{
    if (!file->writable) {
        call->Fail(EBADF);
        return;
    }
    const nt::NTSTATUS earlier = file->errors->TakeForWrite();
    if (nt::IsError(earlier)) {
        call->FailStatus(earlier);
        return;
    }
    file->node->NoteOwnChange();
    const std::shared_ptr<WriteBehind> writes = file->node->Writes(mount.writeWindow);
    // What the kernel keeps of it for others is read anew.
    const bool othersRead = file->direct && !(flags & O_APPEND) && file->node->opens.AnyIsCached();
    auto accepted = [this, call, node = file->node->id, othersRead, size = bytes.size()] {
        if (!othersRead) {
            call->Written(size);
            return;
        }
        mount.dataNotifier.DataChanged(node);
        mount.dataNotifier.CallAt(KernelNotifier::Clock::now(), [call, size] { call->Written(size); });
    };
    if (flags & O_APPEND)
        writes->Append(file->Target(), bytes, std::move(accepted));
    else
        writes->Write(file->Target(), offset, bytes, std::move(accepted));
}

// Of flush and fsync alike: nothing counts as written that the other side hasn't acknowledged.
void FileOperations::Flush(FuseCall::Ptr call, const RemoteFilePtr &file)
{
    file->node->Writes(mount.writeWindow)->WhenDone([call, errors = file->errors] {
        call->FailStatus(errors->TakeForFlush());
    });
}

// The call may be null: the kernel never got the handle.
void FileOperations::Release(FuseCall::Ptr call, uint64_t handle)
{
    const RemoteFilePtr file = mount.openFiles.Drop(handle);
    // Counted from now on, so that a rename that follows waits for it.
    file->node->opens.BeginClose();
    file->released = true;
    file->node->opens.Remove(file);
    // Holds the file until its writes are over.
    file->node->Writes(mount.writeWindow)->WhenDone([file] {
        if (file->writable)
            file->node->NoteOwnChange();
    });
    hidden.CloseDeletion(file->node, file->share);
    if (call)
        call->Done();
}

} // namespace fodr::agent
