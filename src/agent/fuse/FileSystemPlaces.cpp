// Whether folders are still where the mount believes them to be, and where the other side has moved them.
#include "agent/fuse/FileSystem.h"
#include "agent/fuse/RemoteCalls.h"
#include "agent/fuse/StatusErrno.h"
#include "platform/Nt.h"

namespace fodr::agent {
namespace {

// For how long a folder is believed to be where it was seen, if no notice would tell.
constexpr auto kUnwatched = std::chrono::milliseconds(20);

} // namespace

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

Task<bool> FileSystem::FindPlaceAgain(NodePtr parent, std::string name, Place *place)
{
    const std::u16string tried = place->path;
    if (!place->share->HasIds())
        co_return false;
    if (co_await Confirm(parent, Believing::Nothing) != Standing::Here || !table.PlaceIn(parent, name, place))
        co_return false;
    co_return place->path != tried;
}

} // namespace fodr::agent
