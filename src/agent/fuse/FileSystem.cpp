#include "agent/fuse/FileSystem.h"

#include "agent/fuse/Fuse.h"

#include <algorithm>
#include <cerrno>
#include <random>

namespace fodr::agent {
namespace {

// What this side changed within this time is taken for the reason of a notification. Whether it was the only
// one isn't known: once there has been quiet for as long, all counts as changed.
constexpr auto kOwnChangeSpan = std::chrono::seconds(1);

} // namespace

FileSystem::FileSystem(const Options &fileSystemOptions)
    : options(fileSystemOptions),
      directories(
          table, [this](const NodePtr &directory) { return OnDirectoryChanged(directory); },
          [this](InlineFunction<void()> function) {
              notifier.CallAt(Node::Clock::now() + kOwnChangeSpan, std::move(function));
          }),
      hiddenSeed(std::random_device{}())
{}

// ---- Shares ----

// A share's name as a folder of the root, where it can be one, without the tag that says what share it is.
std::string FileSystem::FolderName(const RemoteDevice &device) const
{
    const size_t tag = device.IsTagged() ? device.name.find(')') + 1 : 0;
    std::string name = device.name.substr(tag, 255);
    std::replace(name.begin(), name.end(), '/', '_');
    if (name.empty() || name == "." || name == "..")
        name = "_" + name;
    return name;
}

bool FileSystem::AddShare(std::shared_ptr<RemoteShare> share)
{
    const uint32_t deviceId = share->Device().id;
    if (!options.folders) {
        uint32_t none = 0;
        if (!rootDevice.compare_exchange_strong(none, deviceId) && none != deviceId)
            return false;
        table.SetRootShare(std::move(share));
        notifier.AttributesChanged(NodeTable::kRootId);
        return true;
    }
    RemoveShare(deviceId); // it may have come back under its number
    const std::string name = FolderName(share->Device());
    if (!table.AddShareFolder(name, std::move(share)))
        return false;
    notifier.NameChanged(NodeTable::kRootId, name);
    return true;
}

void FileSystem::RemoveShare(uint32_t deviceId)
{
    if (!options.folders) {
        uint32_t present = deviceId;
        if (rootDevice.compare_exchange_strong(present, 0)) {
            table.SetRootShare(nullptr);
            notifier.AttributesChanged(NodeTable::kRootId);
        }
        return;
    }
    const std::string name = table.RemoveShareFolder(deviceId);
    if (!name.empty())
        notifier.NameGone(NodeTable::kRootId, name);
}

bool FileSystem::HasShare() const
{
    return table.RootShare() || !table.ShareFolders().empty();
}

void FileSystem::SetSession(fuse_session *fuseSession)
{
    session = fuseSession;
    if (fuseSession)
        notifier.SetSession(fuseSession);
    else
        notifier.Stop();
}

void FileSystem::Clear()
{
    directories.Clear();
    openListings.DropAll();
    for (const OpenFilePtr &file : openFiles.DropAll())
        file->node->opens.Remove(file);
}

// ---- What the kernel is told ----

bool FileSystem::OnDirectoryChanged(const NodePtr &directory)
{
    const auto lately = Node::Clock::now() - kOwnChangeSpan;
    if (directory->ChangedSince(lately))
        return false;
    const auto children = table.ChildrenOf(directory);
    for (const auto &[name, id] : children) {
        const NodePtr child = table.Find(id);
        if (child && child->ChangedSince(lately))
            return false;
    }
    notifier.AttributesChanged(directory->id);
    for (const auto &[name, id] : children) {
        if (const NodePtr child = table.Find(id))
            child->DropFactsOfOpen();
        notifier.NameChanged(directory->id, name);
        notifier.AttributesChanged(id);
    }
    return true;
}

EntryAnswer FileSystem::AnswerFor(const NodePtr &node, const FileFacts &facts, bool lasting, double age) const
{
    const double left = std::max(0.0, options.cacheSeconds - age);
    return {.node = node->id,
            .attributes = StatOf(facts, node->id, options.owner),
            .nameSeconds = left,
            .attributeSeconds = lasting ? left : 0};
}

// Whether a folder's entry still says what is so, as far as this side has to do with it.
bool FileSystem::IsAsTold(const NodePtr &parent, const std::string &name, Node::Clock::time_point asked) const
{
    if (parent->ChangedSince(asked))
        return false;
    const NodePtr node = table.Child(parent, name);
    return !node || !(node->ChangedSince(asked) || node->opens.Any(true));
}

// `node` has one lookup more for this answer.
bool FileSystem::ReplyEntry(const FuseCall::Ptr &call, const NodePtr &node, const FileFacts &facts,
                            bool lasting, double age)
{
    if (call->Entry(AnswerFor(node, facts, lasting, age)))
        return true;
    table.Forget(node->id, 1);
    return false;
}

// Where a name is to be made or removed. False when it can't be, with the call answered.
bool FileSystem::LocateForChange(const FuseCall::Ptr &call, const NodePtr &parent, const std::string &name,
                                 Place *place) const
{
    if (!parent || !table.PlaceIn(parent, name, place)) {
        // The root of several shares isn't anybody's folder.
        call->Fail(parent && parent == table.Root() ? EPERM : ESTALE);
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
    return true;
}

} // namespace fodr::agent
