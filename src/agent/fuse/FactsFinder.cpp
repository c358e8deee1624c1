#include "agent/fuse/FactsFinder.h"

#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "platform/Nt.h"

namespace fodr::agent {

// Of what is open by its handle, of others by their name, if it still leads to them.
Task<Found> FactsFinder::FactsOf(NodePtr node, Freshness freshness)
{
    Found found;
    found.asked = Node::Clock::now();
    const std::shared_ptr<WriteBehind> writes = node->WritesIfAny();
    if (writes)
        co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });
    const OpenFilePtr file = node->opens.Any(false);
    if (file) {
        if (node->TakeFactsOfOpen(mount.UnwatchedSpan(), &found.facts, &found.asked))
            co_return found;
        const uint64_t asked = writes ? writes->Generation() : 0;
        found.status = co_await QueryFacts(*file->share, file->fileId, &found.facts);
        if (!nt::IsError(found.status) && writes)
            writes->NoteFacts(found.facts, asked);
        if (!nt::IsError(found.status) && mount.table.FileIdOf(node) == 0)
            mount.table.SetFileId(node, found.facts.id);
    } else {
        found = co_await FactsByName(node, freshness);
        if (SaysAbsent(found.status) && node->directory && mount.directories.Present(node))
            found = co_await FactsOfDirectory(node);
    }
    if (!nt::IsError(found.status))
        node->NoteFacts(found.facts);
    co_return found;
}

Task<Found> FactsFinder::FactsByName(NodePtr node, Freshness freshness)
{
    NodePtr parent;
    std::string name;
    while (mount.table.ParentAndNameOf(node, &parent, &name) &&
           !(mount.options.folders && parent == mount.table.Root())) {
        Found found = co_await finder.FindPassing(parent, name, freshness);
        if (nt::IsError(found.status) && !SaysAbsent(found.status))
            co_return found;
        const uint64_t known = mount.table.FileIdOf(node);
        const bool same = !nt::IsError(found.status) && KindOf(found.facts) == node->kind &&
                          (known == 0 || found.facts.id == known);
        if (same) {
            if (known == 0 && found.exact && found.facts.id != 0)
                mount.table.SetFileId(node, found.facts.id);
            node->NoteSeen(found.asked);
            co_return found;
        }
        if (found.facts.id == 0 && !nt::IsError(found.status))
            co_return Found::Failure(nt::STATUS_OBJECT_NAME_NOT_FOUND);
        mount.LoseName(parent, name, node); // another of its names may still be its own
    }
    if (node->directory && (mount.table.ShareRootOf(node) == node || node->AnyListing())) {
        const Found found = co_await FactsOfDirectory(node);
        co_return found;
    }
    co_return Found::Failure(node == mount.table.Root() ? nt::STATUS_DEVICE_REMOVED
                                                        : nt::STATUS_FILE_DELETED);
}

// By the folder's kept handle: of a share's root, which has no entry anywhere, and of what was moved.
Task<Found> FactsFinder::FactsOfDirectory(NodePtr node)
{
    Found found;
    found.asked = Node::Clock::now();
    for (bool first = true;; first = false) {
        const DirectoryHandlePtr kept = mount.directories.Present(node);
        const std::shared_ptr<DirectoryListing> listing = kept || !first ? nullptr : node->AnyListing();
        DirectoryHandlePtr directory = kept;
        if (!directory && !listing) {
            const auto [acquired, opened] = co_await mount.AwaitDirectory(node);
            found.status = acquired;
            directory = opened;
        }
        if (!directory && !listing) {
            if (node == mount.table.Root())
                found.status = nt::STATUS_DEVICE_REMOVED;
            co_return found;
        }
        RemoteShare &share = directory ? directory->Share() : listing->Share();
        found.status =
            co_await QueryFacts(share, directory ? directory->FileId() : listing->FileId(), &found.facts);
        if (directory && SaysStaleHandle(found.status))
            mount.directories.Drop(node);
        if (!first || !SaysStaleHandle(found.status))
            break;
    }
    // The handle may be of another folder, which had the name when it was opened.
    const uint64_t known = mount.table.FileIdOf(node);
    if (!nt::IsError(found.status) && known != 0 && found.facts.id != known &&
        mount.table.ShareRootOf(node) != node)
        co_return Found::Failure(nt::STATUS_FILE_DELETED);
    co_return found;
}

} // namespace fodr::agent
