#include "agent/fuse/StickyNames.h"

#include "agent/fuse/Waits.h"
#include "platform/Nt.h"

#include <cstdio>
#include <random>

namespace fodr::agent {
namespace {

bool IsRefusal(nt::NTSTATUS status)
{
    return status == nt::STATUS_ACCESS_DENIED || status == nt::STATUS_SHARING_VIOLATION;
}

} // namespace

RemoteShare::CreateCall OpenToDelete(const RemoteShare &share, bool directory)
{
    uint32_t kind = directory ? nt::FILE_DIRECTORY_FILE : nt::FILE_NON_DIRECTORY_FILE;
    if (share.LinksOfMount() == LinkView::Follow) // a link may be shown as a folder
        kind = 0;
    return {.desiredAccess = nt::DELETE_ACCESS | nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
            .createDisposition = nt::FILE_OPEN,
            .createOptions = nt::FILE_OPEN_REPARSE_POINT | kind};
}

StickyNames::StickyNames(MountState &mountState, NameFinder &nameFinder)
    : mount(mountState), finder(nameFinder), seed(std::random_device{}())
{}

// Waits until nothing of this side is in the way of a rename or a removal.
Task<Nothing> StickyNames::ClearTheWay(NodePtr node)
{
    if (node && node->directory)
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { mount.directories.DropBelow(node, std::move(done)); });
    if (node)
        co_await AwaitNoneClosing(node);
    co_return Nothing{};
}

std::string StickyNames::HiddenName()
{
    char name[64];
    snprintf(name, sizeof(name), "%s%08x-%x", kHiddenPrefix.data(), seed, ++counter);
    return name;
}

// POSIX removes a file that may not be written; NT wants the attribute cleared first.
Task<nt::NTSTATUS> StickyNames::ClearReadOnly(const Place &place)
{
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_WRITE_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_OPEN_REPARSE_POINT};
    const IoResult opened = co_await place.share->Create(open, place.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const std::array<uint8_t, 36> record = BasicRecord({.attributes = nt::FILE_ATTRIBUTE_NORMAL});
    const IoResult result = co_await place.share->SetInformation(fileId, nt::FileBasicInformation, record);
    const nt::NTSTATUS status = result.status;
    co_await place.share->Close(fileId);
    co_return status;
}

// Marks what is open and closes it: with that the name is gone, unless others have it open.
Task<nt::NTSTATUS> StickyNames::DeleteOpened(const Place &place, uint32_t fileId)
{
    const nt::NTSTATUS marked = co_await place.share->Delete(fileId);
    const nt::NTSTATUS closed = co_await place.share->Close(fileId);
    co_return nt::IsError(marked) ? marked : closed;
}

// Not by the close: a folder that isn't empty would stay there without a word.
Task<nt::NTSTATUS> StickyNames::DeleteDirectory(Place place)
{
    const RemoteShare::CreateCall open = OpenToDelete(*place.share, true);
    for (bool first = true;; first = false) {
        const IoResult opened = co_await place.share->Create(open, place.path);
        nt::NTSTATUS status = opened.status;
        if (!opened.Failed())
            status = co_await DeleteOpened(place, opened.fileId);
        if (status != nt::STATUS_CANNOT_DELETE || !first)
            co_return status;
        const nt::NTSTATUS cleared = co_await ClearReadOnly(place);
        if (nt::IsError(cleared))
            co_return status;
    }
}

// Opens what is to be deleted with that handle's close.
Task<IoResult> StickyNames::OpenForDeletion(const Place &place)
{
    RemoteShare::CreateCall open = OpenToDelete(*place.share, false);
    open.createOptions |= nt::FILE_DELETE_ON_CLOSE;
    IoResult opened = co_await place.share->Create(open, place.path);
    if (opened.status == nt::STATUS_CANNOT_DELETE) {
        const nt::NTSTATUS cleared = co_await ClearReadOnly(place);
        if (!nt::IsError(cleared))
            opened = co_await place.share->Create(open, place.path);
    }
    co_return opened;
}

// It is gone when this returns: a later call of the owner's own doesn't find it any more.
Task<nt::NTSTATUS> StickyNames::DeleteFileAt(const Place &place)
{
    const IoResult opened = co_await OpenForDeletion(place);
    if (opened.Failed())
        co_return opened.status;
    co_return co_await place.share->Close(opened.fileId);
}

// NT keeps the name of a deleted file until its last handle is closed; POSIX doesn't. So an open file gets a
// name that nobody is shown, and a handle whose close deletes it: by this side, with the last close of the
// file, or by the other, should the mount go away before.
Task<nt::NTSTATUS> StickyNames::DeleteOpenFile(NodePtr parent, std::string name, NodePtr node, Place place)
{
    const GateHold alone = co_await PassGate(parent, NameGate::Entry::Alone);
    const std::u16string shown = place.path;
    const RemoteShare::CreateCall open = OpenToDelete(*place.share, false);
    const IoResult opened = co_await place.share->Create(open, place.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const std::string hidden = HiddenName();
    nt::NTSTATUS status = nt::STATUS_OBJECT_PATH_NOT_FOUND;
    if (mount.table.PlaceIn(parent, hidden, &place))
        status = co_await place.share->Rename(fileId, place.path, false);
    if (!nt::IsError(status)) {
        const IoResult deleting = co_await OpenForDeletion(place);
        status = deleting.status;
        if (!nt::IsError(status)) {
            mount.table.Rename(parent, name, parent, hidden);
            node->opens.SetDeletion(deleting.fileId);
            CloseDeletion(node, place.share);
        } else {
            co_await place.share->Rename(fileId, shown, false);
        }
    }
    mount.CloseLater(node, place.share, fileId);
    co_return status;
}

// With the last of the file's own handles, which may have been closed by now.
void StickyNames::CloseDeletion(const NodePtr &node, const std::shared_ptr<RemoteShare> &share)
{
    const uint32_t deletion = node->opens.TakeDeletion();
    if (deletion != 0)
        mount.CloseLater(node, share, deletion);
}

// Of a file that may be open.
Task<nt::NTSTATUS> StickyNames::RemoveFile(NodePtr parent, std::string name, Place place)
{
    const NodePtr node = mount.table.Child(parent, name);
    if (node)
        co_await AwaitNoneClosing(node);
    if (node && node->opens.IsOpen()) {
        const nt::NTSTATUS status = co_await DeleteOpenFile(parent, name, node, place);
        co_return status;
    }
    const nt::NTSTATUS status = co_await DeleteFileAt(place);
    if (!nt::IsError(status))
        mount.table.Remove(parent, name);
    co_return status;
}

Task<nt::NTSTATUS> StickyNames::RemoveFolder(NodePtr node, Place place)
{
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

// The target is open through this mount: it gets out of the way, under a name of its own as a deleted file
// does, and back if the rename fails. Nobody looks at the folder's names meanwhile.
Task<nt::NTSTATUS> StickyNames::RenameOverOpenFile(Moving moving, NodePtr targetNode)
{
    const GateHold alone = co_await PassGate(moving.newParent, NameGate::Entry::Alone);
    RemoteShare &share = *moving.target.share;
    const RemoteShare::CreateCall open = OpenToDelete(share, false);
    const IoResult opened = co_await share.Create(open, moving.target.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const std::string hidden = HiddenName();
    Place aside;
    nt::NTSTATUS status = nt::STATUS_OBJECT_PATH_NOT_FOUND;
    if (mount.table.PlaceIn(moving.newParent, hidden, &aside))
        status = co_await share.Rename(fileId, aside.path, false);
    if (!nt::IsError(status)) {
        status = co_await share.Rename(moving.fileId, moving.target.path, false);
        if (nt::IsError(status))
            co_await share.Rename(fileId, moving.target.path, false);
    }
    if (!nt::IsError(status)) {
        mount.table.Rename(moving.newParent, moving.newName, moving.newParent, hidden);
        mount.table.Rename(moving.parent, moving.name, moving.newParent, moving.newName);
        const IoResult deleting = co_await OpenForDeletion(aside);
        if (!deleting.Failed()) {
            targetNode->opens.SetDeletion(deleting.fileId);
            CloseDeletion(targetNode, aside.share);
        } else {
            co_await share.Delete(fileId); // at once, then
        }
    }
    mount.CloseLater(targetNode, moving.target.share, fileId);
    co_return status;
}

// A rename was refused although it may replace: POSIX replaces what NT won't.
Task<nt::NTSTATUS> StickyNames::RenameOver(Moving moving, nt::NTSTATUS refusal)
{
    const NodePtr node = mount.table.Child(moving.newParent, moving.newName);
    const Found found = co_await finder.Find(moving.newParent, moving.newName);
    if (nt::IsError(found.status))
        co_return refusal;
    if (found.facts.IsDirectory()) {
        if (node)
            co_await AwaitCall(
                [&](InlineFunction<void()> done) { mount.directories.DropBelow(node, std::move(done)); });
        const nt::NTSTATUS deleted = co_await DeleteDirectory(moving.target);
        if (nt::IsError(deleted))
            co_return deleted;
        co_return co_await moving.target.share->Rename(moving.fileId, moving.target.path, false);
    }
    if (found.facts.IsReadOnly()) {
        const nt::NTSTATUS cleared = co_await ClearReadOnly(moving.target);
        if (nt::IsError(cleared))
            co_return refusal;
        const nt::NTSTATUS renamed =
            co_await moving.target.share->Rename(moving.fileId, moving.target.path, true);
        if (!nt::IsError(renamed))
            co_return renamed;
    }
    if (!node || !node->opens.IsOpen())
        co_return refusal;
    const nt::NTSTATUS status = co_await RenameOverOpenFile(moving, node);
    co_return status;
}

// What is still being closed in a folder keeps NT from moving it. False: there was nothing to wait for.
Task<bool> StickyNames::AwaitClosesBelow(NodePtr folder)
{
    bool waited = false;
    for (const auto &entry : mount.table.ChildrenOf(folder)) {
        const NodePtr &child = entry.second;
        if (child->opens.IsClosing()) {
            waited = true;
            co_await AwaitNoneClosing(child);
        }
        if (child->directory && co_await AwaitClosesBelow(child))
            waited = true;
    }
    co_return waited;
}

Task<nt::NTSTATUS> StickyNames::Move(Moving moving, bool replace)
{
    const NodePtr node = mount.table.Child(moving.parent, moving.name);
    co_await ClearTheWay(node);
    co_await ClearTheWay(mount.table.Child(moving.newParent, moving.newName));
    // What is said to be a file or a folder is looked at by the device filter.
    RemoteShare::CreateCall open = OpenToDelete(*moving.source.share, node && node->directory);
    if (!node)
        open.createOptions = nt::FILE_OPEN_REPARSE_POINT;
    const IoResult opened = co_await moving.source.share->Create(open, moving.source.path);
    if (opened.Failed())
        co_return opened.status;
    moving.fileId = opened.fileId;
    nt::NTSTATUS status = co_await moving.source.share->Rename(moving.fileId, moving.target.path, replace);
    if (node && node->directory && IsRefusal(status) && co_await AwaitClosesBelow(node))
        status = co_await moving.source.share->Rename(moving.fileId, moving.target.path, replace);
    if (replace && (IsRefusal(status) || status == nt::STATUS_OBJECT_NAME_COLLISION))
        status = co_await RenameOver(moving, status);
    if (!nt::IsError(status) && mount.table.Child(moving.parent, moving.name) == node)
        mount.table.Rename(moving.parent, moving.name, moving.newParent, moving.newName);
    // The next rename of this file waits for the close.
    if (node)
        mount.CloseLater(node, moving.source.share, moving.fileId);
    else
        co_await moving.source.share->Close(moving.fileId);
    co_return status;
}

} // namespace fodr::agent
