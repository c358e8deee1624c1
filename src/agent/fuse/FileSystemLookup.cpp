#include "agent/fuse/FileSystem.h"
#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"

#include <algorithm>
#include <cerrno>
#include <climits>

namespace fodr::agent {
namespace {

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
    const auto span = watched ? CacheSpan() : UnwatchedSpan();
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
        if (SaysNoSuchFolder(found.status))
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

} // namespace fodr::agent
