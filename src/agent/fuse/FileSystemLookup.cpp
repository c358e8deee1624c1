#include "agent/fuse/FileSystem.h"
#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace fodr::agent {
namespace {

constexpr auto kBelieved = std::chrono::milliseconds(400); // what was told, if no notice would correct it
// For how long a folder is believed to be where it was seen, if no notice would tell.
constexpr auto kUnwatched = std::chrono::milliseconds(20);
constexpr uint32_t kLongestReparseData = 16 << 10; // MS-FSCC 2.1.2

// The entry of the name in the answer to a search for it: the exact one, or the first, which differs in case.
bool PickEntry(ByteSpan answer, bool hasIds, const std::u16string &wanted, FileFacts *facts, bool *exact)
{
    bool found = false;
    DirectoryReader reader(answer, hasIds);
    std::u16string ntName;
    for (DirectoryReader::Entry entry; reader.Next(&entry);) {
        entry.CopyName(&ntName);
        *exact = ntName == wanted;
        if (found && !*exact)
            continue;
        *facts = entry.facts;
        found = true;
        if (*exact)
            break;
    }
    return found;
}

} // namespace

// ---- Finding names ----

Task<FileSystem::Found> FileSystem::Find(NodePtr parent, std::string name, Freshness freshness)
{
    if (name.starts_with(kHiddenPrefix))
        co_return NotFound(nt::STATUS_OBJECT_NAME_NOT_FOUND);
    bool decided = false;
    Found found = co_await FindByHandle(parent, name, freshness, &decided);
    if (!decided && SaysStaleHandle(found.status))
        found = co_await FindByHandle(parent, name, freshness, &decided);
    if (decided)
        co_return found;
    Place place;
    if (!table.PlaceIn(parent, name, &place))
        co_return NotFound(nt::STATUS_OBJECT_PATH_NOT_FOUND);
    // What a share names one by one is followed, links as well.
    const bool follow = place.share->Device().IsTagged() && table.ShareRootOf(parent) == parent;
    found = co_await FindByPath(place, follow);
    co_return found;
}

// Not while a name is taken away for a moment.
Task<FileSystem::Found> FileSystem::FindPassing(NodePtr parent, std::string name, Freshness freshness)
{
    const GateHold passed = co_await PassGate(parent, NameGate::Entry::Shared);
    Found found = co_await Find(parent, name, freshness);
    co_return found;
}

// Asks for as many names of the folder as one answer holds.
void FileSystem::AskForNames(const DirectoryHandlePtr &directory)
{
    // Nobody who ends the handle's use waits for this.
    auto take = [asked = Node::Clock::now(),
                 weak = std::weak_ptr<DirectoryHandle>(directory)](const IoResult &result) {
        if (const DirectoryHandlePtr alive = weak.lock())
            alive->Names().Answered(asked, result.Failed() ? ByteSpan{} : result.data,
                                    alive->Share().HasIds());
    };
    directory->Share().QueryDirectory(directory->FileId(), ListingClassOf(directory->Share()), true, u"*",
                                      std::move(take));
}

// What the folder's names were told to be lately, if that still holds.
bool FileSystem::Recall(const NodePtr &parent, const std::string &name, const std::u16string &ntName,
                        const DirectoryHandlePtr &directory, Found *found)
{
    const auto now = Node::Clock::now();
    const bool watched = parent->IsWatched() && !parent->IsBusy();
    const auto span = watched ? CacheSpan() : std::min<Node::Clock::duration>(CacheSpan(), kBelieved);
    // Names that come and go all the time aren't worth it.
    bool ask = !parent->ChangedSince(now - span);
    RecentNames::ToldPtr told = directory->Names().Recall(now, span, &ask);
    if (ask)
        AskForNames(directory);
    if (!told || ChangedBySelf(parent, name, told->asked))
        return false;
    const auto entry = told->names.find(ntName);
    if (entry == told->names.end() || (entry->second.id == 0 && directory->Share().HasIds()))
        return false;
    directory->Names().NoteUse();
    found->facts = entry->second;
    found->asked = told->asked;
    found->told = std::move(told);
    return true;
}

// One request at most, once the folder is open. Not decided: another way has to be tried.
Task<FileSystem::Found> FileSystem::FindByHandle(NodePtr parent, std::string name, Freshness freshness,
                                                 bool *decided)
{
    Found found;
    Place place;
    DirectoryHandlePtr directory = directories.Present(parent);
    if (!directory) {
        if (!table.PlaceOf(parent, &place) || place.share->Device().IsTagged())
            co_return found;
        const auto [acquired, opened] = co_await AwaitDirectory(parent);
        found.status = acquired;
        directory = opened;
    }
    if (!directory) {
        *decided = found.status != nt::STATUS_ACCESS_DENIED && found.status != nt::STATUS_SHARING_VIOLATION;
        if (SaysAbsent(found.status)) // the folder is
            found.status = nt::STATUS_OBJECT_PATH_NOT_FOUND;
        co_return found;
    }
    const std::u16string wanted = NtNameFromPosix(name);
    found.asked = Node::Clock::now();
    if (freshness == Freshness::Cached && Recall(parent, name, wanted, directory, &found)) {
        *decided = true;
        co_return found;
    }
    const bool hasIds = directory->Share().HasIds();
    const IoResult result = co_await SearchDirectory(directory->Share(), directory->FileId(), wanted);
    found.status = result.status;
    if (!result.Failed() && !PickEntry(result.data, hasIds, wanted, &found.facts, &found.exact))
        found.status = nt::STATUS_OBJECT_NAME_NOT_FOUND;
    *decided = true;
    const nt::NTSTATUS checked = co_await AwaitChecked(directory);
    if (SaysStaleHandle(checked))
        found.status = checked;
    else if (nt::IsError(checked))
        co_return NotFound(checked);
    if (SaysStaleHandle(found.status) || found.status == nt::STATUS_CANCELLED) {
        directories.Drop(parent);
        *decided = false;
    }
    if (found.status == nt::STATUS_DELETE_PENDING) { // the folder itself
        directories.Drop(parent);
        parent->NoteSeen({});
    }
    co_return found;
}

Task<FileSystem::Found> FileSystem::FindByPath(Place place, bool follow)
{
    Found found;
    found.asked = Node::Clock::now();
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = follow ? 0 : nt::FILE_OPEN_REPARSE_POINT};
    const IoResult opened = co_await CreateFile(*place.share, open, place.path);
    found.status = opened.status;
    if (opened.Failed())
        co_return found;
    const uint32_t fileId = opened.fileId;
    found.status = co_await QueryFacts(*place.share, fileId, &found.facts);
    co_await CloseFile(*place.share, fileId);
    co_return found;
}

// ---- Whether names still lead where they led ----

// What was seen holds until the folder tells of a change, if it does tell.
bool FileSystem::IsConfirmed(const NodePtr &parent, const NodePtr &node) const
{
    const auto seen = node->SeenAt();
    if (seen <= parent->NoticedAt())
        return false;
    return parent->IsWatchedSince(seen) || Node::Clock::now() - seen < kUnwatched;
}

Task<FileSystem::Standing> FileSystem::Confirm(NodePtr folder, Believing believing)
{
    Place place;
    if (table.PlaceOf(folder, &place) && !place.share->HasIds())
        co_return Standing::Here;
    std::vector<NodePtr> way = table.ParentsOf(folder);
    way.push_back(folder);
    const bool fromRoot = table.ShareRootOf(way[0]) == way[0];
    if (!fromRoot && !co_await FindMoved(way[0]))
        co_return way[0] != folder &&co_await FindMoved(folder) ? Standing::Here : Standing::Replaced;
    for (size_t i = 1; i < way.size(); ++i) {
        const NodePtr &parent = way[i - 1], &node = way[i];
        if (believing == Believing::WhatWasSeen && IsConfirmed(parent, node))
            continue;
        NodePtr seenIn;
        std::string name;
        if (!table.ParentAndNameOf(node, &seenIn, &name) || seenIn != parent)
            co_return Standing::Replaced;
        const Found found = co_await FindPassing(parent, name, Freshness::Asked);
        const uint64_t known = table.FileIdOf(node);
        const bool absent = SaysAbsent(found.status);
        if (nt::IsError(found.status) && !absent)
            co_return Standing::Here; // the call itself will tell
        if (!absent && (known == 0 || found.facts.id == known) && found.facts.IsDirectory()) {
            if (known == 0)
                table.SetFileId(node, found.facts.id);
            node->NoteSeen(found.asked);
            continue;
        }
        LoseName(parent, name, node);
        if (co_await FindMoved(node))
            continue;
        if (node != folder && co_await FindMoved(folder))
            co_return Standing::Here;
        co_return absent ? Standing::Gone : Standing::Replaced;
    }
    co_return Standing::Here;
}

// By the folder's own handle, if there is one: the other side tells the path of what is open, and of the
// share.
Task<bool> FileSystem::FindMoved(NodePtr folder)
{
    const DirectoryHandlePtr kept = directories.Present(folder);
    const std::shared_ptr<DirectoryListing> listing = kept ? nullptr : folder->AnyListing();
    if (!kept && !listing)
        co_return false;
    RemoteShare &share = kept ? kept->Share() : listing->Share();
    const uint32_t fileId = kept ? kept->FileId() : listing->FileId();
    std::u16string path, rootPath;
    bool hasPath;
    // The handle may be of another folder, which had the name when it was opened.
    const std::shared_ptr<FactsUnderway> identity = FactsUnderway::Ask(share, fileId);
    {
        const IoResult told = co_await QueryFile(share, fileId, nt::FileNameInformation);
        hasPath = !told.Failed() && ReadNameInformation(told.data, &path);
    }
    co_await identity->Arrival();
    const uint64_t known = table.FileIdOf(folder);
    if (!hasPath || nt::IsError(identity->status) || (known != 0 && identity->facts.id != known))
        co_return false;
    const NodePtr root = table.RootOf(share.shared_from_this());
    if (!root)
        co_return false;
    const auto [acquired, rootHandle] = co_await AwaitDirectory(root);
    if (!rootHandle)
        co_return false;
    {
        const IoResult told = co_await QueryFile(share, rootHandle->FileId(), nt::FileNameInformation);
        if (told.Failed() || !ReadNameInformation(told.data, &rootPath))
            co_return false;
    }
    if (rootPath == u"\\")
        rootPath.clear();
    if (path.size() <= rootPath.size() || !path.starts_with(rootPath) || path[rootPath.size()] != u'\\')
        co_return false; // it has left the share
    table.SetMovedTo(folder, share.shared_from_this(), path.substr(rootPath.size()));
    co_return true;
}

// A file that this mount has made is known by its name until a handle tells its id.
Task<Nothing> FileSystem::Identify(NodePtr node)
{
    const OpenFilePtr file = node->opens.Any(false);
    if (file && file->share->HasIds()) {
        FileFacts facts;
        const nt::NTSTATUS status = co_await QueryFacts(*file->share, file->fileId, &facts);
        if (!nt::IsError(status))
            table.SetFileId(node, facts.id);
    }
    co_return Nothing{};
}

Detached FileSystem::Lookup(FuseCall::Ptr call, uint64_t parentId, std::string name)
{
    const NodePtr parent = table.Find(parentId);
    if (!parent) {
        call->Fail(ESTALE);
        co_return;
    }
    if (name.size() > NAME_MAX) {
        call->Fail(ENAMETOOLONG);
        co_return;
    }
    if (options.folders && parent == table.Root()) {
        const NodePtr folder = table.ReachShareFolder(name);
        if (!folder) {
            call->Fail(ENOENT);
            co_return;
        }
        const auto asked = Node::Clock::now();
        const Found root = co_await FactsOf(folder);
        if (nt::IsError(root.status)) {
            table.Forget(folder->id, 1);
            call->FailStatus(root.status);
        } else {
            ReplyEntry(call, folder, folder, root.facts, true, asked);
        }
        co_return;
    }
    // What is being written is looked up as it will be.
    const NodePtr known = table.Child(parent, name);
    const std::shared_ptr<WriteBehind> writes = known ? known->WritesIfAny() : nullptr;
    if (writes)
        co_await AwaitCall([&](InlineFunction<void()> done) { writes->WhenDone(std::move(done)); });
    Found found;
    const std::optional<FileFacts> ahead = openedAhead.Look(parent, name);
    if (ahead) {
        found.facts = *ahead;
        found.asked = Node::Clock::now() - OpenedAhead::kSpan;
    } else {
        found = co_await FindPassing(parent, name, Freshness::Cached);
    }
    if (nt::IsError(found.status)) {
        if (!SaysAbsent(found.status)) {
            call->FailStatus(found.status);
            co_return;
        }
        // Another folder may have the parent's name by now: the kernel finds it when it looks again.
        const Standing standing = co_await Confirm(parent);
        if (standing == Standing::Here && found.status == nt::STATUS_OBJECT_PATH_NOT_FOUND)
            found = co_await FindPassing(parent, name, Freshness::Asked);
        if (nt::IsError(found.status)) {
            if (known)
                table.RemoveIf(parent, name, known);
            const bool asWas = standing == Standing::Here && found.status != nt::STATUS_OBJECT_PATH_NOT_FOUND;
            call->Fail(asWas ? ENOENT : ESTALE);
            co_return;
        }
    }
    if (known && found.facts.id != 0 && table.FileIdOf(known) == 0)
        co_await Identify(known);
    // Names that differ in case are different nodes, also where they lead to one file: a rename from one case
    // to another would be nothing to the kernel otherwise.
    const bool opened = known && !found.exact && table.FileIdOf(known) == found.facts.id; // which told its id
    const NodePtr node = Reach(parent, name, found.facts, opened ? found.facts.id : found.NodeId());
    node->NoteFacts(found.facts);
    node->NoteSeen(found.asked);
    if (ahead)
        node->NoteAhead();
    if (!found.exact)
        node->NoteOtherCase();
    // Hosts without ids may tell late, in a folder, what becomes of a file while it is open.
    if (found.facts.id == 0 && node->opens.IsOpen()) {
        const Found present = co_await FactsOf(node);
        if (!nt::IsError(present.status)) {
            ReplyEntry(call, parent, node, present.facts, false, found.asked);
            co_return;
        }
    }
    // Who is told of a change meanwhile may not have found the node yet.
    const bool outdated = found.told && found.told->forgotten;
    ReplyEntry(call, parent, node, found.facts, !outdated && !node->opens.Any(true), found.asked);
    if (parent->NoticedAt() >= found.asked) // the notice may have come before the kernel knew the name
        notifier.NameChanged(parent->id, name);
}

// ---- Facts of nodes ----

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
        const auto span = std::min<Node::Clock::duration>(CacheSpan(), kBelieved);
        if (node->TakeFactsOfOpen(span, &found.facts, &found.asked))
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
    call->Attributes(attributes, AttributeSeconds(parent, node, found.facts, found.asked));
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
