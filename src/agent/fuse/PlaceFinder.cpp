#include "agent/fuse/PlaceFinder.h"

#include "agent/fuse/PosixMapping.h"
#include "agent/fuse/Waits.h"
#include "platform/Nt.h"

#include <cerrno>
#include <climits>

namespace fodr::agent {
namespace {

// For how long a folder is believed to be where it was seen, if no notice would tell.
constexpr auto kUnwatched = std::chrono::milliseconds(20);

} // namespace

// What was seen holds until the folder tells of a change, if it does tell.
bool PlaceFinder::IsConfirmed(const NodePtr &parent, const NodePtr &node) const
{
    const auto seen = node->SeenAt();
    if (seen <= parent->NoticedAt())
        return false;
    return parent->IsWatchedSince(seen) || Node::Clock::now() - seen < kUnwatched;
}

Task<Standing> PlaceFinder::Confirm(NodePtr folder, Believing believing)
{
    Place place;
    if (mount.table.PlaceOf(folder, &place) && !place.share->HasIds())
        co_return Standing::Here;
    std::vector<NodePtr> way = mount.table.ParentsOf(folder);
    way.push_back(folder);
    const bool fromRoot = mount.table.ShareRootOf(way[0]) == way[0];
    if (!fromRoot && !co_await FindMoved(way[0])) {
        const bool found = way[0] != folder && co_await FindMoved(folder);
        co_return found ? Standing::Here : Standing::Replaced;
    }
    for (size_t i = 1; i < way.size(); ++i) {
        const NodePtr &parent = way[i - 1], &node = way[i];
        if (believing == Believing::WhatWasSeen && IsConfirmed(parent, node))
            continue;
        NodePtr seenIn;
        std::string name;
        if (!mount.table.ParentAndNameOf(node, &seenIn, &name) || seenIn != parent)
            co_return Standing::Replaced;
        const Found found = co_await finder.FindPassing(parent, name, Freshness::Asked);
        const uint64_t known = mount.table.FileIdOf(node);
        const bool absent = SaysAbsent(found.status);
        if (nt::IsError(found.status) && !absent)
            co_return Standing::Here; // the call itself will tell
        if (!absent && (known == 0 || found.facts.id == known) && found.facts.IsDirectory()) {
            if (known == 0)
                mount.table.SetFileId(node, found.facts.id);
            node->NoteSeen(found.asked);
            continue;
        }
        mount.LoseName(parent, name, node);
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
Task<bool> PlaceFinder::FindMoved(NodePtr folder)
{
    const DirectoryHandlePtr kept = mount.directories.Present(folder);
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
        const IoResult told = co_await share.QueryInformation(fileId, nt::FileNameInformation);
        hasPath = !told.Failed() && ReadNameInformation(told.data, &path);
    }
    co_await identity->Arrival();
    const uint64_t known = mount.table.FileIdOf(folder);
    if (!hasPath || nt::IsError(identity->status) || (known != 0 && identity->facts.id != known))
        co_return false;
    const NodePtr root = mount.table.RootOf(share.shared_from_this());
    if (!root)
        co_return false;
    const auto [acquired, rootHandle] = co_await mount.AwaitDirectory(root);
    if (!rootHandle)
        co_return false;
    {
        const IoResult told = co_await share.QueryInformation(rootHandle->FileId(), nt::FileNameInformation);
        if (told.Failed() || !ReadNameInformation(told.data, &rootPath))
            co_return false;
    }
    if (rootPath == u"\\")
        rootPath.clear();
    if (path.size() <= rootPath.size() || !path.starts_with(rootPath) || path[rootPath.size()] != u'\\')
        co_return false; // it has left the share
    mount.table.SetMovedTo(folder, share.shared_from_this(), path.substr(rootPath.size()));
    co_return true;
}

// A file that this mount has made is known by its name until a handle tells its id.
Task<Nothing> PlaceFinder::Identify(NodePtr node)
{
    const RemoteFilePtr file = node->opens.Any(false);
    if (file && file->share->HasIds()) {
        FileFacts facts;
        const nt::NTSTATUS status = co_await file->share->QueryFacts(file->fileId, &facts);
        if (!nt::IsError(status))
            mount.table.SetFileId(node, facts.id);
    }
    co_return Nothing{};
}

Task<bool> PlaceFinder::FindPlaceAgain(NodePtr parent, std::string name, Place *place)
{
    const std::u16string tried = place->path;
    if (!place->share->HasIds())
        co_return false;
    if (co_await Confirm(parent, Believing::Nothing) != Standing::Here ||
        !mount.table.PlaceIn(parent, name, place))
        co_return false;
    co_return place->path != tried;
}

// Where a name is to be made or removed. False when it can't be, with the call answered.
bool PlaceFinder::LocateForChange(const FuseCall::Ptr &call, const NodePtr &parent, const std::string &name,
                                  Place *place) const
{
    if (!parent || !mount.table.PlaceIn(parent, name, place)) {
        // The root of several shares isn't anybody's folder.
        call->Fail(parent && parent == mount.table.Root() ? EPERM : ESTALE);
        return false;
    }
    if (place->share->Device().IsReadOnly()) {
        call->Fail(EROFS);
        return false;
    }
    if (name.starts_with(kHiddenPrefix)) {
        call->Fail(EPERM);
        return false;
    }
    if (name.size() > NAME_MAX) {
        call->Fail(ENAMETOOLONG);
        return false;
    }
    return true;
}

// The same once the folder is known to be where its path leads: a name isn't changed in another folder.
Task<bool> PlaceFinder::LocateConfirmed(FuseCall::Ptr call, NodePtr parent, std::string name, Place *place)
{
    Standing standing = Standing::Here;
    if (parent && parent != mount.table.Root())
        standing = co_await Confirm(parent);
    if (standing == Standing::Here)
        co_return LocateForChange(call, parent, name, place);
    call->Fail(ESTALE);
    co_return false;
}

} // namespace fodr::agent
