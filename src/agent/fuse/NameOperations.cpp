#include "agent/fuse/Operations.h"
#include "agent/fuse/PosixMapping.h"
#include "agent/fuse/Waits.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"
#include "platform/NtReparse.h"

#include <cerrno>
#include <climits>

namespace fodr::agent {
namespace {

constexpr unsigned kNoReplace = 1; // RENAME_NOREPLACE of linux/fs.h

// What makes an empty file a link, a FIFO or a socket on that host; empty where it has no such files.
std::vector<uint8_t> RecordOf(const RemoteShare &share, mode_t mode, const std::string &target)
{
    const bool posix = share.Has(nt::FODR_HOST_LX_FILES);
    if (S_ISLNK(mode))
        return posix ? nt::LxRecord(nt::IO_REPARSE_TAG_LX_SYMLINK, target) : nt::SymbolicLinkRecord(target);
    if (posix && (S_ISFIFO(mode) || S_ISSOCK(mode)))
        return nt::LxRecord(S_ISFIFO(mode) ? nt::IO_REPARSE_TAG_LX_FIFO : nt::IO_REPARSE_TAG_AF_UNIX);
    return {};
}

} // namespace

Task<Nothing> NameOperations::LookupShare(FuseCall::Ptr call, std::string name)
{
    const NodePtr folder = mount.table.ReachShareFolder(name);
    if (!folder) {
        call->Fail(ENOENT);
        co_return Nothing{};
    }
    const auto asked = Node::Clock::now();
    const Found root = co_await factsFinder.FactsOf(folder);
    if (nt::IsError(root.status)) {
        mount.table.Forget(folder->id, 1);
        call->FailStatus(root.status);
    } else {
        mount.ReplyEntry(call, folder, folder, root.facts, true, asked);
    }
    co_return Nothing{};
}

// Another folder may have the parent's name by now: the kernel finds it when it looks again. False: the name
// isn't there, and the call is answered.
Task<bool> NameOperations::FindAgain(FuseCall::Ptr call, NodePtr parent, std::string name, NodePtr known,
                                     Found *found)
{
    if (!SaysAbsent(found->status)) {
        call->FailStatus(found->status);
        co_return false;
    }
    const bool noFolder = found->status == nt::STATUS_OBJECT_PATH_NOT_FOUND;
    const Standing standing =
        co_await places.Confirm(parent, noFolder ? Believing::Nothing : Believing::WhatWasSeen);
    if (standing == Standing::Here && noFolder)
        *found = co_await finder.FindPassing(parent, name, Freshness::Asked);
    if (!nt::IsError(found->status))
        co_return true;
    if (known)
        mount.table.Remove(parent, name, known);
    const bool asWas = standing == Standing::Here && found->status != nt::STATUS_OBJECT_PATH_NOT_FOUND;
    call->Fail(asWas ? ENOENT : ESTALE);
    co_return false;
}

Detached NameOperations::Lookup(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = mount.table.Find(parentId);
    if (!parent || name.size() > NAME_MAX) {
        call->Fail(parent ? ENAMETOOLONG : ESTALE);
        co_return;
    }
    if (mount.options.folders && parent == mount.table.Root()) {
        co_await LookupShare(call, name);
        co_return;
    }
    // What is being written is looked up as it will be.
    const NodePtr known = mount.table.Child(parent, name);
    if (known)
        co_await AwaitWrites(known->WritesIfAny());
    Found found;
    const std::optional<OpenedAhead::Shown> ahead = mount.openedAhead.Look(call->Caller(), parent, name);
    if (ahead) {
        found.facts = ahead->facts;
        found.asked = ahead->asked;
    } else {
        found = co_await finder.FindPassing(parent, name, Freshness::Cached);
    }
    if (nt::IsError(found.status) && !co_await FindAgain(call, parent, name, known, &found))
        co_return;
    if (known && found.facts.id != 0 && mount.table.FileIdOf(known) == 0)
        co_await places.Identify(known);
    // Names that differ in case are different nodes, also where they lead to one file: a rename from one case
    // to another would be nothing to the kernel otherwise.
    const bool opened = known && !found.exact && mount.table.FileIdOf(known) == found.facts.id; // told its id
    const NodePtr node = mount.Reach(parent, name, found.facts, opened ? found.facts.id : found.NodeId());
    node->NoteFacts(found.facts);
    node->NoteSeen(found.asked);
    if (ahead)
        node->NoteAhead(call->Caller());
    if (!found.exact)
        node->NoteOtherCase();
    // Hosts without ids may tell late, in a folder, what becomes of a file while it is open.
    if (found.facts.id == 0 && node->opens.IsOpen()) {
        const Found present = co_await factsFinder.FactsOf(node);
        if (!nt::IsError(present.status)) {
            mount.ReplyEntry(call, parent, node, present.facts, false, found.asked);
            co_return;
        }
    }
    // Who is told of a change meanwhile may not have found the node yet.
    const bool outdated = found.told && found.told->forgotten;
    mount.ReplyEntry(call, parent, node, found.facts, !outdated && !node->opens.Any(true), found.asked);
    if (parent->NoticedAt() >= found.asked) // the notice may have come before the kernel knew the name
        mount.notifier.NameChanged(parent->id, name);
}

Detached NameOperations::MakeDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode)
{
    const NodePtr parent = mount.table.Find(parentId);
    Place place;
    if (!co_await places.LocateConfirmed(call, parent, name, &place))
        co_return;
    RemoteShare::CreateCall create = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                      .createDisposition = nt::FILE_CREATE,
                                      .createOptions = nt::FILE_DIRECTORY_FILE,
                                      .fileAttributes = nt::FILE_ATTRIBUTE_NORMAL};
    if (place.share->Has(nt::FODR_HOST_MODES))
        create.allocationSize = nt::FODR_CREATE_WITH_MODE | (mode & nt::FODR_MODE_BITS);
    parent->NoteOwnChange();
    IoResult made = co_await place.share->Create(create, place.path);
    if (SaysAbsent(made.status) && co_await places.FindPlaceAgain(parent, name, &place))
        made = co_await place.share->Create(create, place.path);
    if (made.Failed()) {
        call->FailInFolder(made.status);
        co_return;
    }
    parent->NoteOwnChange();
    const NodePtr node = place.share->HasIds() ? mount.table.ReachNew(parent, name, NodeKind::Directory)
                                               : mount.table.Reach(parent, name, NodeKind::Directory, 0);
    node->NoteSeen(Node::Clock::now());
    // Whoever stands in it is to go where the other side moves it, so its id is asked for. Nobody waits for
    // that.
    const uint32_t fileId = made.fileId;
    if (place.share->HasIds()) {
        place.share->QueryInformation(fileId, place.share->FactsClass(),
                                      [this, node, fileId, share = place.share](const IoResult &result) {
                                          FileFacts told;
                                          if (!nt::IsError(share->TakeFacts(result, &told)) &&
                                              mount.table.FileIdOf(node) == 0)
                                              mount.table.SetFileId(node, told.id);
                                          mount.CloseLater(node, share, fileId);
                                      });
    } else {
        mount.CloseLater(node, place.share, fileId);
    }
    FileFacts facts;
    facts.attributes = nt::FILE_ATTRIBUTE_DIRECTORY;
    if (place.share->Has(nt::FODR_HOST_MODES))
        facts.mode = S_IFDIR | (mode & nt::FODR_MODE_BITS);
    mount.ReplyEntry(call, parent, node, facts, false, Node::Clock::now());
}

// Makes an empty file and, with a record, what that says of it. Where the link takes the file's place, the
// file goes with its handle: when the other side refuses, or the connection is lost, nothing is left.
Task<nt::NTSTATUS> NameOperations::MakeFile(NodePtr parent, std::string name, Place *place, mode_t mode,
                                            const std::vector<uint8_t> &reparseRecord)
{
    const bool takesPlace = !reparseRecord.empty() && place->share->Has(nt::FODR_HOST_LX_FILES);
    RemoteShare::CreateCall create = {
        .desiredAccess = nt::FILE_WRITE_ATTRIBUTES | nt::DELETE_ACCESS | nt::SYNCHRONIZE,
        .createDisposition = nt::FILE_CREATE,
        .createOptions = nt::FILE_NON_DIRECTORY_FILE | nt::FILE_OPEN_REPARSE_POINT |
                         (takesPlace ? nt::FILE_DELETE_ON_CLOSE : 0),
        .fileAttributes = nt::FILE_ATTRIBUTE_NORMAL};
    if (place->share->Has(nt::FODR_HOST_MODES))
        create.allocationSize = nt::FODR_CREATE_WITH_MODE | (mode & nt::FODR_MODE_BITS);
    IoResult made = co_await place->share->Create(create, place->path);
    if (SaysAbsent(made.status) && co_await places.FindPlaceAgain(parent, name, place))
        made = co_await place->share->Create(create, place->path);
    if (made.Failed())
        co_return made.status;
    const uint32_t fileId = made.fileId;
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    if (!reparseRecord.empty()) {
        const IoResult set =
            co_await place->share->DeviceControl(fileId, nt::FSCTL_SET_REPARSE_POINT, reparseRecord);
        status = set.status;
        if (nt::IsError(status) && !takesPlace)
            co_await place->share->Delete(fileId);
    }
    co_await place->share->Close(fileId);
    co_return status;
}

Detached NameOperations::MakeLink(FuseCall::Ptr call, uint64_t parentId, std::string name, std::string target)
{
    co_await MakeSpecial(call, parentId, name, S_IFLNK | 0777, target);
}

Detached NameOperations::MakeNode(FuseCall::Ptr call, uint64_t parentId, std::string name, mode_t mode)
{
    co_await MakeSpecial(call, parentId, name, mode, {});
}

Task<Nothing> NameOperations::MakeSpecial(FuseCall::Ptr call, uint64_t parentId, std::string name,
                                          mode_t mode, std::string target)
{
    const NodePtr parent = mount.table.Find(parentId);
    Place place;
    if (!co_await places.LocateConfirmed(call, parent, name, &place))
        co_return Nothing{};
    const bool isFile = S_ISREG(mode);
    const std::vector<uint8_t> record =
        isFile ? std::vector<uint8_t>() : RecordOf(*place.share, mode, target);
    const bool unseen = S_ISLNK(mode) && place.share->LinksOfMount() != LinkView::Show;
    if ((!isFile && record.empty()) || unseen) {
        call->Fail(EPERM);
        co_return Nothing{};
    }
    parent->NoteOwnChange();
    const nt::NTSTATUS status = co_await MakeFile(parent, name, &place, mode, record);
    parent->NoteOwnChange();
    if (nt::IsError(status)) {
        // Who isn't allowed to make links there, or has no such files.
        const bool unable = status == nt::STATUS_NOT_SUPPORTED || status == nt::STATUS_INVALID_DEVICE_REQUEST;
        call->FailInFolder(unable ? nt::STATUS_PRIVILEGE_NOT_HELD : status);
        co_return Nothing{};
    }
    const Found found = co_await finder.FindPassing(parent, name, Freshness::Asked);
    if (nt::IsError(found.status)) {
        call->FailOfFile(found.status);
        co_return Nothing{};
    }
    const NodePtr node = mount.Reach(parent, name, found.facts, found.NodeId());
    node->NoteFacts(found.facts);
    node->NoteSeen(found.asked);
    mount.ReplyEntry(call, parent, node, found.facts, true, found.asked);
    co_return Nothing{};
}

// The name is gone when this returns, whoever has the file open.
Task<nt::NTSTATUS> NameOperations::RemoveAtOnce(Place place, NodePtr node, bool directory)
{
    const RemoteShare::CreateCall open = OpenToDelete(*place.share, directory);
    const IoResult opened = co_await place.share->Create(open, place.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const nt::NTSTATUS status = co_await place.share->DeleteAtOnce(fileId);
    mount.CloseLater(node, place.share, fileId);
    co_return status;
}

Detached NameOperations::Unlink(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = mount.table.Find(parentId);
    Place place;
    if (!co_await places.LocateConfirmed(call, parent, name, &place))
        co_return;
    parent->NoteOwnChange();
    nt::NTSTATUS status;
    if (place.share->Has(nt::FODR_HOST_POSIX_NAMES)) {
        const NodePtr node = mount.table.Child(parent, name);
        status = co_await RemoveAtOnce(place, node, false);
        if (SaysAbsent(status) && co_await places.FindPlaceAgain(parent, name, &place))
            status = co_await RemoveAtOnce(place, node, false);
        if (!nt::IsError(status)) {
            mount.table.Remove(parent, name);
            if (node) { // its other names count one link less
                node->NoteOwnChange();
                mount.notifier.AttributesChanged(node->id);
            }
        }
    } else {
        status = co_await hidden.RemoveFile(parent, name, place);
    }
    parent->NoteOwnChange();
    call->FailStatus(status);
}

// Files that an earlier mount had removed while they were open, on a host where that hides them.
Task<bool> NameOperations::ClearLeftovers(NodePtr folder)
{
    auto open = std::make_shared<OpenListing>();
    open->node = folder;
    if (nt::IsError(co_await listings.BeginListing(open)))
        co_return false;
    co_await AwaitCall([&](InlineFunction<void()> done) { open->listing->WhenEnded(std::move(done)); });
    bool any = false;
    for (const std::string &name : open->listing->Hidden()) {
        Place place;
        if (mount.table.PlaceIn(folder, name, &place) && !nt::IsError(co_await hidden.DeleteFileAt(place)))
            any = true;
    }
    co_return any;
}

Task<nt::NTSTATUS> NameOperations::RemoveFolder(NodePtr parent, std::string name, Place place)
{
    const NodePtr node = mount.table.Child(parent, name);
    if (place.share->Has(nt::FODR_HOST_POSIX_NAMES)) {
        const nt::NTSTATUS status = co_await RemoveAtOnce(place, node, true);
        if (node && !nt::IsError(status))
            mount.directories.DropBelow(node, [] {});
        co_return status;
    }
    co_return co_await hidden.RemoveFolder(node, place);
}

Detached NameOperations::RemoveDirectory(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = mount.table.Find(parentId);
    Place place;
    if (!co_await places.LocateConfirmed(call, parent, name, &place))
        co_return;
    parent->NoteOwnChange();
    nt::NTSTATUS status = co_await RemoveFolder(parent, name, place);
    if (SaysAbsent(status) && co_await places.FindPlaceAgain(parent, name, &place))
        status = co_await RemoveFolder(parent, name, place);
    const NodePtr node = mount.table.Child(parent, name);
    if (status == nt::STATUS_DIRECTORY_NOT_EMPTY && node && co_await ClearLeftovers(node))
        status = co_await RemoveFolder(parent, name, place);
    parent->NoteOwnChange();
    if (!nt::IsError(status))
        mount.table.Remove(parent, name);
    call->FailStatus(status);
}

// As rename(2) does it, in one step of the other side's. The new folder is named by its handle, so that the
// file can't land in another one.
Task<nt::NTSTATUS> NameOperations::MoveAtOnce(Moving moving, bool replace)
{
    nt::NTSTATUS status = co_await TryMoveAtOnce(moving, replace);
    if (SaysStaleHandle(status)) {
        mount.directories.Drop(moving.newParent);
        status = co_await TryMoveAtOnce(moving, replace);
    }
    co_return status;
}

// `movedId` is the file's that was moved, 0 where it isn't known.
void NameOperations::NoteMoved(const Moving &moving, const NodePtr &node, uint64_t movedId)
{
    const NodePtr target = mount.table.Child(moving.newParent, moving.newName);
    const uint64_t known = node ? mount.table.FileIdOf(node) : 0;
    // Two names of one file stay two names.
    const bool sameFile = target && known != 0 && mount.table.FileIdOf(target) == known;
    if (!sameFile)
        mount.table.Rename(moving.parent, moving.name, moving.newParent, moving.newName);
    if (node && known == 0)
        mount.table.SetFileId(node, movedId);
    // What was moved was another file than the kernel knew of: it has to look at the new name.
    if (node && known != 0 && movedId != 0 && known != movedId) {
        mount.table.Remove(moving.newParent, moving.newName);
    } else if (node) {
        node->NoteSeen(Node::Clock::now());
    }
    // The kernel goes on believing the name for as long as it was told in the old folder.
    mount.notifier.NameChanged(moving.newParent->id, moving.newName);
    if (target) { // it has a link less
        target->NoteOwnChange();
        mount.notifier.AttributesChanged(target->id);
    }
}

Task<nt::NTSTATUS> NameOperations::TryMoveAtOnce(Moving moving, bool replace)
{
    RemoteShare &share = *moving.source.share;
    const auto [acquired, folder] = co_await mount.AwaitDirectory(moving.newParent);
    if (!folder)
        co_return acquired;
    const NodePtr node = mount.table.Child(moving.parent, moving.name);
    RemoteShare::CreateCall open = OpenToDelete(share, node && node->directory);
    if (!node)
        open.createOptions = nt::FILE_OPEN_REPARSE_POINT;
    const IoResult opened = co_await share.Create(open, moving.source.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    nt::NTSTATUS status = co_await AwaitChecked(folder);
    uint64_t movedId = 0;
    if (!nt::IsError(status)) {
        const std::u16string newName = NtNameFromPosix(moving.newName);
        const std::shared_ptr<FactsUnderway> identity = FactsUnderway::Ask(share, fileId);
        status = co_await share.RenameInto(fileId, folder->FileId(), newName, replace);
        co_await identity->Arrival();
        if (!nt::IsError(identity->status))
            movedId = identity->facts.id;
    }
    if (!nt::IsError(status))
        NoteMoved(moving, node, movedId);
    mount.CloseLater(node, moving.source.share, fileId);
    co_return status;
}

Detached NameOperations::Rename(FuseCall::Ptr call, uint64_t parentId, std::string name, uint64_t newParentId,
                                std::string newName, unsigned flags)
{
    Moving moving;
    moving.parent = mount.table.Find(parentId);
    moving.name = name;
    moving.newParent = mount.table.Find(newParentId);
    moving.newName = newName;
    if (flags & ~kNoReplace) {
        call->Fail(EINVAL);
        co_return;
    }
    if (!co_await places.LocateConfirmed(call, moving.parent, name, &moving.source))
        co_return;
    if (!co_await places.LocateConfirmed(call, moving.newParent, newName, &moving.target))
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
        if (SaysAbsent(status) && co_await places.FindPlaceAgain(moving.parent, name, &moving.source))
            status = co_await MoveAtOnce(moving, replace);
    } else {
        status = co_await hidden.Move(moving, replace);
    }
    moving.parent->NoteOwnChange();
    moving.newParent->NoteOwnChange();
    call->FailInFolder(status);
}

} // namespace fodr::agent
