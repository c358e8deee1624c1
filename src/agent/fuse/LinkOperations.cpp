#include "agent/fuse/Operations.h"
#include "agent/fuse/PosixMapping.h"
#include "agent/fuse/Waits.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"

#include <cerrno>

namespace fodr::agent {

// Where both names are. False when they can't be changed, with the call answered: `refusal` towards hosts
// that can't do it.
Task<bool> LinkOperations::Locate(FuseCall::Ptr call, Moving *moving, uint32_t feature, int refusal)
{
    if (!co_await places.LocateConfirmed(call, moving->parent, moving->name, &moving->source))
        co_return false;
    if (!co_await places.LocateConfirmed(call, moving->newParent, moving->newName, &moving->target))
        co_return false;
    int error = 0;
    if (moving->source.share != moving->target.share)
        error = EXDEV;
    else if (!moving->source.share->Has(feature))
        error = refusal;
    if (error != 0)
        call->Fail(error);
    co_return error == 0;
}

Task<nt::NTSTATUS> LinkOperations::NameIt(Moving moving, uint32_t fileId, DirectoryHandlePtr folder,
                                          Change change, FileFacts *facts)
{
    RemoteShare &share = *moving.source.share;
    const std::u16string newName = NtNameFromPosix(moving.newName);
    nt::NTSTATUS status = co_await AwaitChecked(folder);
    if (nt::IsError(status))
        co_return status;
    if (change == Change::Exchange)
        co_return co_await share.ExchangeWith(fileId, folder->FileId(), newName);
    status = co_await share.LinkInto(fileId, folder->FileId(), newName);
    co_return nt::IsError(status) ? status : co_await share.QueryFacts(fileId, facts);
}

Task<nt::NTSTATUS> LinkOperations::Try(Moving moving, Change change, FileFacts *facts)
{
    RemoteShare &share = *moving.source.share;
    const auto [acquired, folder] = co_await mount.AwaitDirectory(moving.newParent);
    if (!folder)
        co_return acquired;
    const NodePtr node = mount.table.Child(moving.parent, moving.name);
    const bool directory = node && node->directory;
    RemoteShare::CreateCall open = OpenToDelete(share, directory);
    if (!node)
        open.createOptions = nt::FILE_OPEN_REPARSE_POINT;
    if (change == Change::Link)
        open.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::FILE_WRITE_ATTRIBUTES | nt::SYNCHRONIZE;
    const IoResult opened = co_await share.Create(open, moving.source.path);
    if (opened.Failed())
        co_return opened.status;
    const uint32_t fileId = opened.fileId;
    const nt::NTSTATUS status = co_await NameIt(moving, fileId, folder, change, facts);
    if (node)
        mount.CloseLater(node, moving.source.share, fileId);
    else
        share.Close(fileId, [](const IoResult &) {});
    co_return status;
}

Task<nt::NTSTATUS> LinkOperations::Apply(Moving *moving, Change change, FileFacts *facts)
{
    moving->parent->NoteOwnChange();
    moving->newParent->NoteOwnChange();
    nt::NTSTATUS status = co_await Try(*moving, change, facts);
    if (SaysStaleHandle(status)) {
        mount.directories.Drop(moving->newParent);
        status = co_await Try(*moving, change, facts);
    }
    if (SaysAbsent(status) && co_await places.FindPlaceAgain(moving->parent, moving->name, &moving->source))
        status = co_await Try(*moving, change, facts);
    moving->parent->NoteOwnChange();
    moving->newParent->NoteOwnChange();
    co_return status;
}

Detached LinkOperations::Link(FuseCall::Ptr call, uint64_t nodeId, uint64_t newParentId, std::string newName)
{
    Moving moving;
    const NodePtr node = mount.table.Find(nodeId);
    moving.newParent = mount.table.Find(newParentId);
    moving.newName = newName;
    if (!node || !mount.table.ParentAndNameOf(node, &moving.parent, &moving.name)) {
        call->Fail(ESTALE);
        co_return;
    }
    if (!co_await Locate(call, &moving, nt::FODR_HOST_LX_FILES, EPERM))
        co_return;
    // What is being written is shown as it will be.
    co_await AwaitWrites(node->WritesIfAny());
    const auto asked = Node::Clock::now();
    FileFacts facts;
    const nt::NTSTATUS status = co_await Apply(&moving, Change::Link, &facts);
    node->NoteOwnChange();
    if (nt::IsError(status)) {
        if (SaysAbsent(status)) // the kernel looks for both names again
            call->Fail(ESTALE);
        else
            call->FailStatus(status);
        co_return;
    }
    if (mount.table.FileIdOf(node) == 0)
        mount.table.SetFileId(node, facts.id);
    // Of another file if others have put one in its place.
    const NodePtr linked = mount.Reach(moving.newParent, newName, facts, facts.id);
    linked->NoteFacts(facts);
    linked->NoteSeen(asked);
    mount.ReplyEntry(call, moving.newParent, linked, facts, true, asked);
}

void LinkOperations::NoteExchanged(const Moving &moving)
{
    const NodePtr source = mount.table.Child(moving.parent, moving.name);
    const NodePtr target = mount.table.Child(moving.newParent, moving.newName);
    const std::string aside = std::string(kHiddenPrefix) + moving.name; // which nobody can have
    mount.table.Rename(moving.parent, moving.name, moving.parent, aside);
    mount.table.Rename(moving.newParent, moving.newName, moving.parent, moving.name);
    mount.table.Rename(moving.parent, aside, moving.newParent, moving.newName);
    for (const NodePtr &node : {source, target}) {
        if (node)
            node->NoteSeen(Node::Clock::now());
    }
    mount.notifier.NameChanged(moving.parent->id, moving.name);
    mount.notifier.NameChanged(moving.newParent->id, moving.newName);
}

Detached LinkOperations::Exchange(FuseCall::Ptr call, uint64_t parentId, std::string name,
                                  uint64_t newParentId, std::string newName)
{
    Moving moving;
    moving.parent = mount.table.Find(parentId);
    moving.name = name;
    moving.newParent = mount.table.Find(newParentId);
    moving.newName = newName;
    if (!co_await Locate(call, &moving, nt::FODR_HOST_EXCHANGE, EINVAL))
        co_return;
    FileFacts facts;
    const nt::NTSTATUS status = co_await Apply(&moving, Change::Exchange, &facts);
    if (!nt::IsError(status))
        NoteExchanged(moving);
    call->FailInFolder(status);
}

} // namespace fodr::agent
