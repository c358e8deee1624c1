// Making, removing and renaming names. Towards hosts that take a name away at once; the others are served by
// FileSystemHidden.cpp.
#include "agent/fuse/FileSystem.h"
#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"

#include <cerrno>

namespace fodr::agent {
namespace {

constexpr unsigned kNoReplace = 1; // RENAME_NOREPLACE of linux/fs.h

} // namespace

// A link is removed and renamed itself, not what it leads to.
RemoteShare::CreateCall FileSystem::OpenToDelete(bool directory)
{
    return {.desiredAccess = nt::DELETE_ACCESS | nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
            .createDisposition = nt::FILE_OPEN,
            .createOptions = nt::FILE_OPEN_REPARSE_POINT |
                             (directory ? nt::FILE_DIRECTORY_FILE : nt::FILE_NON_DIRECTORY_FILE)};
}

// ---- Making and removing ----

Detached FileSystem::MakeDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = table.Find(parentId);
    Place place;
    if (!co_await LocateConfirmed(call, parent, name, &place))
        co_return;
    const RemoteShare::CreateCall create = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                            .createDisposition = nt::FILE_CREATE,
                                            .createOptions = nt::FILE_DIRECTORY_FILE,
                                            .fileAttributes = nt::FILE_ATTRIBUTE_NORMAL};
    parent->NoteOwnChange();
    IoResult made = co_await CreateFile(*place.share, create, place.path);
    if (SaysAbsent(made.status) && co_await FindPlaceAgain(parent, name, &place))
        made = co_await CreateFile(*place.share, create, place.path);
    if (made.Failed()) {
        FailCreate(call, made.status);
        co_return;
    }
    parent->NoteOwnChange();
    const NodePtr node = place.share->HasIds() ? table.ReachNew(parent, name, NodeKind::Directory)
                                               : table.Reach(parent, name, NodeKind::Directory, 0);
    node->NoteSeen(Node::Clock::now());
    // Whoever stands in it is to go where the other side moves it, so its id is asked for. Nobody waits for
    // that.
    const uint32_t fileId = made.fileId;
    if (place.share->HasIds()) {
        place.share->QueryInformation(fileId, FactsClassOf(*place.share),
                                      [this, node, fileId, share = place.share](const IoResult &result) {
                                          FileFacts told;
                                          if (!nt::IsError(TakeFacts(*share, result, &told)) &&
                                              table.FileIdOf(node) == 0)
                                              table.SetFileId(node, told.id);
                                          CloseLater(node, share, fileId);
                                      });
    } else {
        CloseLater(node, place.share, fileId);
    }
    FileFacts facts;
    facts.attributes = nt::FILE_ATTRIBUTE_DIRECTORY;
    ReplyEntry(call, parent, node, facts, false, Node::Clock::now());
}

// The name is gone when this returns, whoever has the file open.
Task<nt::NTSTATUS> FileSystem::RemoveAtOnce(Place place, NodePtr node, bool directory)
{
    const RemoteShare::CreateCall open = OpenToDelete(directory);
    const IoResult opened = co_await CreateFile(*place.share, open, place.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const IoResult removed = co_await DeleteFileAtOnce(*place.share, fileId);
    const nt::NTSTATUS status = removed.status;
    if (node)
        CloseLater(node, place.share, fileId);
    else
        place.share->Close(fileId, [](const IoResult &) {});
    co_return status;
}

Detached FileSystem::Unlink(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = table.Find(parentId);
    Place place;
    if (!co_await LocateConfirmed(call, parent, name, &place))
        co_return;
    parent->NoteOwnChange();
    nt::NTSTATUS status;
    if (place.share->Has(nt::FODR_HOST_POSIX_NAMES)) {
        const NodePtr node = table.Child(parent, name);
        status = co_await RemoveAtOnce(place, node, false);
        if (SaysAbsent(status) && co_await FindPlaceAgain(parent, name, &place))
            status = co_await RemoveAtOnce(place, node, false);
        if (!nt::IsError(status)) {
            table.Remove(parent, name);
            if (node)
                notifier.AttributesChanged(node->id); // its other names count one link less
        }
    } else {
        status = co_await RemoveFile(parent, name, place);
    }
    parent->NoteOwnChange();
    call->FailStatus(status);
}

// Files that an earlier mount had removed while they were open, on a host where that hides them.
Task<bool> FileSystem::ClearLeftovers(NodePtr folder)
{
    auto open = std::make_shared<OpenListing>();
    open->node = folder;
    if (nt::IsError(co_await BeginListing(open)))
        co_return false;
    co_await AwaitCall([&](InlineFunction<void()> done) { open->listing->WhenEnded(std::move(done)); });
    bool any = false;
    for (const std::string &name : open->listing->Hidden()) {
        Place place;
        if (table.PlaceIn(folder, name, &place) && !nt::IsError(co_await DeleteFileAt(place)))
            any = true;
    }
    co_return any;
}

Task<nt::NTSTATUS> FileSystem::RemoveFolder(NodePtr parent, std::string name, Place place)
{
    const NodePtr node = table.Child(parent, name);
    if (place.share->Has(nt::FODR_HOST_POSIX_NAMES)) {
        const nt::NTSTATUS status = co_await RemoveAtOnce(place, node, true);
        if (node && !nt::IsError(status))
            directories.DropBelow(node, [] {});
        co_return status;
    }
    co_await ClearTheWay(node);
    const nt::NTSTATUS status = co_await DeleteDirectory(place);
    // A handle that is left would keep its name, and the parent from being removed next.
    if (node && !nt::IsError(status)) {
        co_await ClearTheWay(node);
        node->EndListings();
        co_await ClearTheWay(node);
    }
    co_return status;
}

Detached FileSystem::RemoveDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = table.Find(parentId);
    Place place;
    if (!co_await LocateConfirmed(call, parent, name, &place))
        co_return;
    parent->NoteOwnChange();
    nt::NTSTATUS status = co_await RemoveFolder(parent, name, place);
    if (SaysAbsent(status) && co_await FindPlaceAgain(parent, name, &place))
        status = co_await RemoveFolder(parent, name, place);
    const NodePtr node = table.Child(parent, name);
    if (status == nt::STATUS_DIRECTORY_NOT_EMPTY && node && co_await ClearLeftovers(node))
        status = co_await RemoveFolder(parent, name, place);
    parent->NoteOwnChange();
    if (!nt::IsError(status))
        table.Remove(parent, name);
    call->FailStatus(status);
}

// ---- Renaming ----

// Waits until nothing of this side is in the way of a rename or a removal.
Task<Nothing> FileSystem::ClearTheWay(NodePtr node)
{
    if (node && node->directory)
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { directories.DropBelow(node, std::move(done)); });
    if (node)
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { node->opens.WhenNoneClosing(std::move(done)); });
    co_return Nothing{};
}

// As rename(2) does it, in one step of the other side's. The new folder is named by its handle, so that the
// file can't land in another one.
Task<nt::NTSTATUS> FileSystem::MoveAtOnce(Moving moving, bool replace)
{
    nt::NTSTATUS status = co_await TryMoveAtOnce(moving, replace);
    if (SaysStaleHandle(status)) {
        directories.Drop(moving.newParent);
        status = co_await TryMoveAtOnce(moving, replace);
    }
    co_return status;
}

Task<nt::NTSTATUS> FileSystem::TryMoveAtOnce(Moving moving, bool replace)
{
    RemoteShare &share = *moving.source.share;
    const auto [acquired, folder] = co_await AwaitDirectory(moving.newParent);
    if (!folder)
        co_return acquired;
    const NodePtr node = table.Child(moving.parent, moving.name);
    RemoteShare::CreateCall open = OpenToDelete(node && node->directory);
    if (!node)
        open.createOptions = nt::FILE_OPEN_REPARSE_POINT;
    const IoResult opened = co_await CreateFile(share, open, moving.source.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    nt::NTSTATUS status = co_await AwaitChecked(folder);
    uint64_t movedId = 0;
    if (!nt::IsError(status)) {
        const std::u16string newName = NtNameFromPosix(moving.newName);
        const std::shared_ptr<FactsUnderway> identity = FactsUnderway::Ask(share, fileId);
        const IoResult renamed = co_await RenameFileInto(share, fileId, folder->FileId(), newName, replace);
        status = renamed.status;
        co_await identity->Arrival();
        if (!nt::IsError(identity->status))
            movedId = identity->facts.id;
    }
    if (!nt::IsError(status)) {
        const NodePtr target = table.Child(moving.newParent, moving.newName);
        const uint64_t known = node ? table.FileIdOf(node) : 0;
        // Two names of one file stay two names.
        const bool sameFile = target && known != 0 && table.FileIdOf(target) == known;
        if (!sameFile)
            table.Rename(moving.parent, moving.name, moving.newParent, moving.newName);
        if (node && known == 0)
            table.SetFileId(node, movedId);
        // What was moved was another file than the kernel knew of: it has to look at the new name.
        if (node && known != 0 && movedId != 0 && known != movedId) {
            table.Remove(moving.newParent, moving.newName);
        } else if (node) {
            node->NoteSeen(Node::Clock::now());
        }
        // The kernel goes on believing the name for as long as it was told in the old folder.
        notifier.NameChanged(moving.newParent->id, moving.newName);
        if (target)
            notifier.AttributesChanged(target->id); // it has a link less
    }
    if (node)
        CloseLater(node, moving.source.share, fileId);
    else
        share.Close(fileId, [](const IoResult &) {});
    co_return status;
}

Detached FileSystem::Rename(FuseCall::Ptr call, uint64_t parentId, std::string name, uint64_t newParentId,
                            std::string newName, unsigned flags)
{
    Moving moving;
    moving.parent = table.Find(parentId);
    moving.name = name;
    moving.newParent = table.Find(newParentId);
    moving.newName = newName;
    if (flags & ~kNoReplace) {
        call->Fail(EINVAL);
        co_return;
    }
    if (!co_await LocateConfirmed(call, moving.parent, name, &moving.source))
        co_return;
    if (!co_await LocateConfirmed(call, moving.newParent, newName, &moving.target))
        co_return;
    if (moving.source.share != moving.target.share) {
        call->Fail(EXDEV);
        co_return;
    }
    moving.parent->NoteOwnChange();
    moving.newParent->NoteOwnChange();
    const bool replace = (flags & kNoReplace) == 0;
    nt::NTSTATUS status;
    if (moving.source.share->Has(nt::FODR_HOST_POSIX_NAMES)) {
        status = co_await MoveAtOnce(moving, replace);
        if (SaysAbsent(status) && co_await FindPlaceAgain(moving.parent, name, &moving.source))
            status = co_await MoveAtOnce(moving, replace);
    } else {
        status = co_await Move(moving, replace);
    }
    moving.parent->NoteOwnChange();
    moving.newParent->NoteOwnChange();
    FailCreate(call, status);
}

} // namespace fodr::agent
