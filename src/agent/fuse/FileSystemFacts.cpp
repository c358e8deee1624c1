// What files are: their facts, where links lead, what may be done, how much room there is.
#include "agent/fuse/FileSystem.h"
#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "platform/Nt.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace fodr::agent {
namespace {

constexpr uint32_t kLongestReparseData = 16 << 10; // MS-FSCC 2.1.2

} // namespace

// Of what is open by its handle, of others by their name, if it still leads to them.
Task<FileSystem::Found> FileSystem::FactsOf(NodePtr node, Freshness freshness)
{
    Found found;
    found.asked = Node::Clock::now();
    const std::shared_ptr<WriteBehind> writes = node->WritesIfAny();
    if (writes)
        co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });
    const OpenFilePtr file = node->opens.Any(false);
    if (file) {
        if (node->TakeFactsOfOpen(UnwatchedSpan(), &found.facts, &found.asked))
            co_return found;
        const uint64_t asked = writes ? writes->Generation() : 0;
        found.status = co_await QueryFacts(*file->share, file->fileId, &found.facts);
        if (!nt::IsError(found.status) && writes)
            writes->NoteFacts(found.facts, asked);
        if (!nt::IsError(found.status) && table.FileIdOf(node) == 0)
            table.SetFileId(node, found.facts.id);
    } else {
        found = co_await FactsByName(node, freshness);
        if (SaysAbsent(found.status) && node->directory && directories.Present(node))
            found = co_await FactsOfDirectory(node);
    }
    if (!nt::IsError(found.status))
        node->NoteFacts(found.facts);
    co_return found;
}

Task<FileSystem::Found> FileSystem::FactsByName(NodePtr node, Freshness freshness)
{
    NodePtr parent;
    std::string name;
    while (table.ParentAndNameOf(node, &parent, &name) && !(options.folders && parent == table.Root())) {
        Found found = co_await FindPassing(parent, name, freshness);
        if (nt::IsError(found.status) && !SaysAbsent(found.status))
            co_return found;
        const uint64_t known = table.FileIdOf(node);
        const bool same = !nt::IsError(found.status) && KindOf(found.facts) == node->kind &&
                          (known == 0 || found.facts.id == known);
        if (same) {
            if (known == 0 && found.exact && found.facts.id != 0)
                table.SetFileId(node, found.facts.id);
            node->NoteSeen(found.asked);
            co_return found;
        }
        if (found.facts.id == 0 && !nt::IsError(found.status))
            co_return NotFound(nt::STATUS_OBJECT_NAME_NOT_FOUND);
        LoseName(parent, name, node); // another of its names may still be its own
    }
    if (node->directory && (table.ShareRootOf(node) == node || node->AnyListing())) {
        const Found found = co_await FactsOfDirectory(node);
        co_return found;
    }
    co_return NotFound(node == table.Root() ? nt::STATUS_DEVICE_REMOVED : nt::STATUS_FILE_DELETED);
}

// By the folder's kept handle: of a share's root, which has no entry anywhere, and of what was moved.
Task<FileSystem::Found> FileSystem::FactsOfDirectory(NodePtr node)
{
    Found found;
    found.asked = Node::Clock::now();
    for (bool first = true;; first = false) {
        const DirectoryHandlePtr kept = directories.Present(node);
        const std::shared_ptr<DirectoryListing> listing = kept || !first ? nullptr : node->AnyListing();
        DirectoryHandlePtr directory = kept;
        if (!directory && !listing) {
            const auto [acquired, opened] = co_await AwaitDirectory(node);
            found.status = acquired;
            directory = opened;
        }
        if (!directory && !listing) {
            if (node == table.Root())
                found.status = nt::STATUS_DEVICE_REMOVED;
            co_return found;
        }
        RemoteShare &share = directory ? directory->Share() : listing->Share();
        found.status =
            co_await QueryFacts(share, directory ? directory->FileId() : listing->FileId(), &found.facts);
        if (directory && SaysStaleHandle(found.status))
            directories.Drop(node);
        if (!first || !SaysStaleHandle(found.status))
            break;
    }
    // The handle may be of another folder, which had the name when it was opened.
    const uint64_t known = table.FileIdOf(node);
    if (!nt::IsError(found.status) && known != 0 && found.facts.id != known &&
        table.ShareRootOf(node) != node)
        co_return NotFound(nt::STATUS_FILE_DELETED);
    co_return found;
}

Detached FileSystem::GetAttributes(FuseCall::Ptr call, uint64_t nodeId)
{
    const NodePtr node = table.Find(nodeId);
    if (!node) {
        call->Fail(ESTALE);
        co_return;
    }
    if (options.folders && node == table.Root()) {
        FileFacts root;
        root.attributes = nt::FILE_ATTRIBUTE_DIRECTORY;
        root.lastWriteTime = NtTimeOf({});
        call->Attributes(StatOf(root, node->id, options.owner), 0);
        co_return;
    }
    const Found found = co_await FactsOf(node, Freshness::Cached);
    if (SaysAbsent(found.status)) {
        call->Fail(ESTALE);
        co_return;
    }
    if (nt::IsError(found.status)) {
        call->FailStatus(found.status);
        co_return;
    }
    struct stat attributes = StatOf(found.facts, node->id, options.owner);
    if (found.facts.id == 0 && (!table.HasName(node) || node->opens.IsDeleted()))
        attributes.st_nlink = 0;
    NodePtr parent;
    std::string name;
    if (!table.ParentAndNameOf(node, &parent, &name))
        parent = node;
    call->Attributes(attributes,
                     AttributeSeconds(node, found.facts, found.asked, NameSeconds(parent, found.asked)));
}

Detached FileSystem::ReadLink(FuseCall::Ptr call, uint64_t nodeId)
{
    const NodePtr node = table.Find(nodeId);
    Place place;
    if (!node || node->kind != NodeKind::Link) {
        call->Fail(node ? EINVAL : ESTALE);
        co_return;
    }
    if (const std::string known = node->Target(); !known.empty()) {
        call->Link(known);
        co_return;
    }
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_OPEN_REPARSE_POINT};
    if (!table.PlaceOf(node, &place)) {
        call->Fail(ESTALE);
        co_return;
    }
    const IoResult opened = co_await CreateFile(*place.share, open, place.path);
    if (opened.Failed()) {
        if (SaysAbsent(opened.status))
            call->Fail(ESTALE);
        else
            call->FailStatus(opened.status);
        co_return;
    }
    const uint32_t fileId = opened.fileId;
    std::string target;
    bool whole;
    {
        const IoResult told =
            co_await ControlFile(*place.share, fileId, nt::FSCTL_GET_REPARSE_POINT, kLongestReparseData);
        whole = !told.Failed() && ReadLinkTarget(told.data, &target);
    }
    FileFacts facts;
    const nt::NTSTATUS status = co_await QueryFacts(*place.share, fileId, &facts);
    CloseLater(node, place.share, fileId);
    if (nt::IsError(status)) {
        call->FailStatus(status);
    } else if (const uint64_t known = table.FileIdOf(node); known != 0 && facts.id != known) {
        call->Fail(ESTALE);
    } else if (!whole) {
        call->Fail(EIO);
    } else {
        node->NoteTarget(target);
        call->Link(target);
    }
}

// By the modes that are shown. Only whether something can be written is a question to the other side.
Detached FileSystem::Access(FuseCall::Ptr call, uint64_t nodeId, int mask)
{
    const NodePtr node = table.Find(nodeId);
    if (!node) {
        call->Fail(ESTALE);
        co_return;
    }
    // Who makes it the working directory stays in it, wherever the other side moves it: a handle tells.
    if (node->directory && (mask & X_OK))
        co_await AwaitDirectory(node);
    Place place;
    if ((mask & W_OK) && table.PlaceOf(node, &place)) {
        if (place.share->Device().IsReadOnly()) {
            call->Fail(EROFS);
            co_return;
        }
        const Found found = node->kind != NodeKind::File ? Found{} : co_await FactsOf(node);
        if (SaysAbsent(found.status)) {
            call->Fail(ESTALE);
            co_return;
        }
        if (nt::IsError(found.status)) {
            call->FailStatus(found.status);
            co_return;
        }
        if (found.facts.IsReadOnly()) {
            call->Fail(EACCES);
            co_return;
        }
    }
    call->Done();
}

Detached FileSystem::StatFs(FuseCall::Ptr call, uint64_t nodeId)
{
    const NodePtr node = table.Find(nodeId);
    const NodePtr shareRoot = node ? table.ShareRootOf(node) : nullptr;
    if (!shareRoot) {
        // The root of several shares has no space of its own.
        call->Volume({});
        co_return;
    }
    nt::NTSTATUS status = STATUS_FILE_INVALID;
    for (int tries = 0; tries < 2 && SaysStaleHandle(status); ++tries) {
        const auto [acquired, directory] = co_await AwaitDirectory(shareRoot);
        if (!directory) {
            status = acquired;
            break;
        }
        const IoResult result =
            co_await QueryVolumeOf(directory->Share(), directory->FileId(), nt::FileFsFullSizeInformation);
        status = result.status;
        VolumeFacts facts;
        if (!result.Failed() && !ReadFullSizeInformation(result.data, &facts))
            status = STATUS_INVALID_NETWORK_RESPONSE;
        if (!nt::IsError(status)) {
            call->Volume(facts);
            co_return;
        }
        if (SaysStaleHandle(status))
            directories.Drop(shareRoot);
    }
    call->FailStatus(status);
}

} // namespace fodr::agent
