#include "agent/fuse/NameFinder.h"

#include "agent/fuse/PosixMapping.h"
#include "agent/fuse/Waits.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"

#include <algorithm>

namespace fodr::agent {

namespace {

// The entry of the name in the answer to a search for it: the exact one, or the first, which differs in case.
bool PickEntry(ByteSpan answer, FileIds ids, const std::u16string &wanted, FileFacts *facts, bool *exact)
{
    bool found = false;
    DirectoryReader reader(answer, ids);
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

// What a share names one by one is followed, links as well.
bool NameFinder::IsNamedOneByOne(const NodePtr &parent, const Place &place) const
{
    return place.share->Device().IsTagged() && mount.table.ShareRootOf(parent) == parent;
}

Task<Found> NameFinder::Find(NodePtr parent, std::string name, Freshness freshness)
{
    if (name.starts_with(kHiddenPrefix))
        co_return Found::Failure(nt::STATUS_OBJECT_NAME_NOT_FOUND);
    Found found = co_await FindItself(parent, name, freshness);
    Place place;
    if (nt::IsError(found.status) || !found.facts.IsSymbolicLink() ||
        !mount.table.PlaceIn(parent, name, &place))
        co_return found;
    const LinkView links = place.share->LinksOfMount();
    const bool named = IsNamedOneByOne(parent, place);
    if (links == LinkView::Hide && !named)
        co_return Found::Failure(nt::STATUS_OBJECT_NAME_NOT_FOUND);
    if (links == LinkView::Follow || named) {
        Found target = co_await FindByPath(place, true);
        if (!nt::IsError(target.status))
            co_return target;
    }
    co_return found;
}

Task<Found> NameFinder::FindItself(NodePtr parent, std::string name, Freshness freshness)
{
    bool decided = false;
    Found found = co_await FindByHandle(parent, name, freshness, &decided);
    if (!decided && SaysStaleHandle(found.status))
        found = co_await FindByHandle(parent, name, freshness, &decided);
    if (decided)
        co_return found;
    Place place;
    if (!mount.table.PlaceIn(parent, name, &place))
        co_return Found::Failure(nt::STATUS_OBJECT_PATH_NOT_FOUND);
    found = co_await FindByPath(place, IsNamedOneByOne(parent, place));
    co_return found;
}

// Not while a name is taken away for a moment.
Task<Found> NameFinder::FindPassing(NodePtr parent, std::string name, Freshness freshness)
{
    const GateHold passed = co_await PassGate(parent, NameGate::Entry::Shared);
    Found found = co_await Find(parent, name, freshness);
    co_return found;
}

// Asks for as many names of the folder as one answer holds.
void NameFinder::AskForNames(const DirectoryHandlePtr &directory)
{
    // Nobody who ends the handle's use waits for this.
    auto take = [asked = Node::Clock::now(),
                 weak = std::weak_ptr<DirectoryHandle>(directory)](const IoResult &result) {
        if (const DirectoryHandlePtr alive = weak.lock())
            alive->Names().Answered(asked, result.Failed() ? ByteSpan{} : result.data, alive->Share().Ids());
    };
    directory->Share().QueryDirectory(directory->FileId(), directory->Share().ListingClass(), true, u"*",
                                      std::move(take));
}

// What the folder's names were told to be lately, if that still holds.
bool NameFinder::Recall(const NodePtr &parent, const std::string &name, const std::u16string &ntName,
                        const DirectoryHandlePtr &directory, Found *found)
{
    const auto now = Node::Clock::now();
    const bool watched = parent->IsWatched() && !parent->IsBusy();
    const auto span = watched ? mount.CacheSpan() : mount.UnwatchedSpan();
    // Names that come and go all the time aren't worth it.
    bool ask = !parent->ChangedSince(now - span);
    RecentNames::ToldPtr told = directory->Names().Recall(now, span, &ask);
    if (ask)
        AskForNames(directory);
    if (!told || mount.ChangedBySelf(parent, name, told->asked))
        return false;
    const auto entry = told->names.find(ntName);
    if (entry == told->names.end() || (entry->second.mode == 0 && directory->Share().TellsIds()))
        return false;
    directory->Names().NoteUse();
    found->facts = entry->second;
    found->asked = told->asked;
    found->told = std::move(told);
    return true;
}

// One request at most, once the folder is open. Not decided: another way has to be tried.
Task<Found> NameFinder::FindByHandle(NodePtr parent, std::string name, Freshness freshness, bool *decided)
{
    Found found;
    Place place;
    DirectoryHandlePtr directory = mount.directories.Present(parent);
    if (!directory) {
        if (!mount.table.PlaceOf(parent, &place) || place.share->Device().IsTagged())
            co_return found;
        const auto [acquired, opened] = co_await mount.AwaitDirectory(parent);
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
    RemoteShare &share = directory->Share();
    const IoResult result =
        co_await share.QueryDirectory(directory->FileId(), share.ListingClass(), true, wanted);
    found.status = result.status;
    if (!result.Failed() &&
        !PickEntry(result.data, directory->Share().Ids(), wanted, &found.facts, &found.exact))
        found.status = nt::STATUS_OBJECT_NAME_NOT_FOUND;
    *decided = true;
    const nt::NTSTATUS checked = co_await AwaitChecked(directory);
    if (SaysStaleHandle(checked))
        found.status = checked;
    else if (nt::IsError(checked))
        co_return Found::Failure(checked);
    if (SaysStaleHandle(found.status) || found.status == nt::STATUS_CANCELLED) {
        mount.directories.Drop(parent);
        *decided = false;
    }
    if (found.status == nt::STATUS_DELETE_PENDING) { // the folder itself
        mount.directories.Drop(parent);
        parent->NoteSeen({});
    }
    co_return found;
}

Task<Found> NameFinder::FindByPath(Place place, bool follow)
{
    Found found;
    found.asked = Node::Clock::now();
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = follow ? 0 : nt::FILE_OPEN_REPARSE_POINT};
    const IoResult opened = co_await place.share->Create(open, place.path);
    found.status = opened.status;
    if (opened.Failed())
        co_return found;
    const uint32_t fileId = opened.fileId;
    found.status = co_await place.share->QueryFacts(fileId, &found.facts);
    co_await place.share->Close(fileId);
    co_return found;
}

// Of what is open by its handle, of others by their name, if it still leads to them.
Task<Found> FactsFinder::FactsOf(NodePtr node, Freshness freshness)
{
    Found found;
    found.asked = Node::Clock::now();
    const std::shared_ptr<WriteBehind> writes = node->WritesIfAny();
    co_await AwaitWrites(writes);
    const RemoteFilePtr file = node->opens.Any(false);
    if (file) {
        if (node->TakeFactsOfOpen(mount.UnwatchedSpan(), &found.facts, &found.asked))
            co_return found;
        const uint64_t asked = writes ? writes->Generation() : 0;
        found.status = co_await file->share->QueryFacts(file->fileId, &found.facts);
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
            co_await share.QueryFacts(directory ? directory->FileId() : listing->FileId(), &found.facts);
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
