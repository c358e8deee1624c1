#include "agent/fuse/NameFinder.h"

#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
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
    const Links links = place.share->LinksOfMount();
    const bool named = IsNamedOneByOne(parent, place);
    if (links == Links::Hide && !named)
        co_return Found::Failure(nt::STATUS_OBJECT_NAME_NOT_FOUND);
    if (links == Links::Follow || named) {
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
    directory->Share().QueryDirectory(directory->FileId(), ListingClassOf(directory->Share()), true, u"*",
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
    const IoResult result = co_await SearchDirectory(directory->Share(), directory->FileId(), wanted);
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
    const IoResult opened = co_await CreateFile(*place.share, open, place.path);
    found.status = opened.status;
    if (opened.Failed())
        co_return found;
    const uint32_t fileId = opened.fileId;
    found.status = co_await QueryFacts(*place.share, fileId, &found.facts);
    co_await CloseFile(*place.share, fileId);
    co_return found;
}

} // namespace fodr::agent
