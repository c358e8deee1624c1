#include "agent/fuse/FileSystem.h"

#include "agent/fuse/Fuse.h"
#include "agent/fuse/RemoteCalls.h"
#include "platform/Nt.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <random>

namespace fodr::agent {
namespace {

// A folder that this mount itself changes is busy: its notices don't tell who made a change, and taking each
// up would cost more than the change. So the kernel believes little of such a folder, and notices wait.
constexpr auto kBusySpan = std::chrono::seconds(1); // since the last change
constexpr auto kLookAgain = std::chrono::milliseconds(20);

// For how long who opens a file by a name that it has lost has to look again: until the kernel has been told.
constexpr auto kNameLost = std::chrono::milliseconds(500);

double SecondsLeft(Node::Clock::time_point asked, Node::Clock::duration span)
{
    const std::chrono::duration<double> left = asked + span - Node::Clock::now();
    return std::max(0.0, left.count());
}

} // namespace

FileSystem::FileSystem(const Options &fileSystemOptions)
    : options(fileSystemOptions),
      directories(
          table, [this](auto &directory, auto next) { OnDirectoryChanged(directory, std::move(next)); },
          [this](auto &directory) { OnDirectoryLeft(directory); }),
      hiddenSeed(std::random_device{}())
{}

// ---- Shares ----

// Who doesn't know the control refuses it.
Detached FileSystem::AskFeatures(std::shared_ptr<RemoteShare> share, InlineFunction<void()> done)
{
    const RemoteShare::CreateCall open = {.desiredAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN};
    const std::u16string root = u"\\";
    const IoResult opened = co_await CreateFile(*share, open, root);
    if (!opened.Failed()) {
        const uint32_t fileId = opened.fileId;
        const IoResult told = co_await ControlFile(*share, fileId, nt::FSCTL_FODR_QUERY_HOST,
                                                   sizeof(nt::FODR_HOST_INFORMATION));
        nt::FODR_HOST_INFORMATION host{};
        if (!told.Failed() && told.data.size() >= sizeof(host))
            memcpy(&host, told.data.data(), sizeof(host));
        uint32_t features = host.Version >= 1 ? host.Features : 0;
        if (!share->ListsSeveral()) // entries that come alone have another layout
            features &= ~nt::FODR_HOST_FILE_IDS;
        if (share->Device().IsTagged()) // where names are guarded one by one
            features &= ~nt::FODR_HOST_POSIX_NAMES;
        share->SetFeatures(features);
        co_await CloseFile(*share, fileId);
    }
    done();
}

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
    openedAhead.Purge(true);
    for (const OpenFilePtr &file : openFiles.DropAll())
        file->node->opens.Remove(file);
}

// ---- What the kernel is told ----

// Of a busy folder the kernel believes what it learns for a short time only. What it learnt before, it is
// told to forget once.
void FileSystem::OnDirectoryChanged(const NodePtr &directory, InlineFunction<void()> next)
{
    const auto now = Node::Clock::now();
    const auto lately = now - kBusySpan;
    const bool wasBusy = directory->IsBusy();
    const Children children = table.ChildrenOf(directory);
    const bool busy = directory->ChangedSince(lately) ||
                      std::any_of(children.begin(), children.end(),
                                  [&](const auto &child) { return child.second->ChangedSince(lately); });
    if (busy)
        directory->SetBusyUntil(now + kBusySpan);
    if (!busy || !wasBusy)
        ForgetInKernel(directory, children);
    // Not before the kernel has been told of this change: an owner who changes one file after the other would
    // bring notices faster than they are told.
    if (next)
        notifier.CallAt(busy ? now + kLookAgain : now, std::move(next));
}

// What the kernel still believes of its names isn't corrected by a notice any more.
void FileSystem::OnDirectoryLeft(const NodePtr &directory)
{
    if (Node::Clock::now() - directory->LongAnswerAt() < CacheSpan())
        ForgetInKernel(directory, table.ChildrenOf(directory));
}

NodePtr FileSystem::Reach(const NodePtr &parent, const std::string &name, const FileFacts &facts,
                          uint64_t fileId)
{
    std::vector<Node::Name> lost;
    const NodePtr node = table.Reach(parent, name, KindOf(facts), fileId, facts.links, &lost);
    for (const Node::Name &former : lost)
        notifier.NameChanged(former.parent->id, former.text);
    if (!lost.empty())
        node->NoteRenamed(kNameLost);
    else
        node->NoteLookedUp();
    return node;
}

void FileSystem::LoseName(const NodePtr &parent, const std::string &name, const NodePtr &node)
{
    table.RemoveIf(parent, name, node);
    notifier.NameChanged(parent->id, name);
}

void FileSystem::ForgetInKernel(const NodePtr &directory, const Children &children)
{
    notifier.AttributesChanged(directory->id);
    for (const auto &[name, child] : children) {
        notifier.NameChanged(directory->id, name);
        notifier.AttributesChanged(child->id);
        child->DropFactsOfOpen();
        if (!child->directory && child->opens.IsOpen())
            LookAgain(child);
    }
}

// What was read of an open file is dropped as soon as it is seen to have changed.
Detached FileSystem::LookAgain(NodePtr node)
{
    const OpenFilePtr file = node->opens.Any(false);
    if (!file || node->opens.Any(true))
        co_return;
    FileFacts facts;
    const nt::NTSTATUS status = co_await QueryFacts(*file->share, file->fileId, &facts);
    if (!nt::IsError(status) && node->NoteFacts(facts))
        notifier.DataChanged(node->id);
}

double FileSystem::NameSeconds(const NodePtr &folder, Node::Clock::time_point asked) const
{
    folder->NoteLongAnswer();
    const bool watched = folder->IsWatchedSince(asked) && folder->NoticedAt() < asked && !folder->IsBusy();
    return SecondsLeft(asked, watched ? CacheSpan() : UnwatchedSpan());
}

// A folder's own changes are told to those who watch it. Those of a file under another name, or of one that
// was moved while it is open, are told in another folder.
double FileSystem::AttributeSeconds(const NodePtr &node, const FileFacts &facts,
                                    Node::Clock::time_point asked, double folderSeconds) const
{
    if (node->opens.Any(true))
        return 0;
    if (node->directory)
        return std::min(folderSeconds, NameSeconds(node, asked));
    if (facts.links > 1 || node->opens.IsOpen())
        return std::min(folderSeconds, SecondsLeft(asked, UnwatchedSpan()));
    return folderSeconds;
}

EntryAnswer FileSystem::AnswerFor(const NodePtr &parent, const NodePtr &node, const FileFacts &facts,
                                  bool lasting, Node::Clock::time_point asked) const
{
    const double seconds = NameSeconds(parent, asked);
    return {.node = node->id,
            .attributes = StatOf(facts, node->id, options.owner),
            .nameSeconds = seconds,
            .attributeSeconds = lasting ? AttributeSeconds(node, facts, asked, seconds) : 0};
}

// Whether this mount has changed what was told of the folder's entry since it was asked for.
bool FileSystem::ChangedBySelf(const NodePtr &parent, const std::string &name,
                               Node::Clock::time_point asked) const
{
    if (parent->ChangedSince(asked))
        return true;
    const NodePtr node = table.Child(parent, name);
    return node && (node->ChangedSince(asked) || node->opens.Any(true));
}

// `node` has one lookup more for this answer.
bool FileSystem::ReplyEntry(const FuseCall::Ptr &call, const NodePtr &parent, const NodePtr &node,
                            const FileFacts &facts, bool lasting, Node::Clock::time_point asked)
{
    if (call->Entry(AnswerFor(parent, node, facts, lasting, asked)))
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
    if (name.size() > NAME_MAX) {
        call->Fail(ENAMETOOLONG);
        return false;
    }
    return true;
}

// A name is made in a folder: that the folder isn't there may be news to the kernel.
void FileSystem::FailCreate(const FuseCall::Ptr &call, nt::NTSTATUS status)
{
    if (status == nt::STATUS_OBJECT_PATH_NOT_FOUND)
        call->Fail(ESTALE);
    else
        call->FailStatus(status);
}

// The same once the folder is known to be where its path leads: a name isn't changed in another folder.
Task<bool> FileSystem::LocateConfirmed(FuseCall::Ptr call, NodePtr parent, std::string name, Place *place)
{
    Standing standing = Standing::Here;
    if (parent && parent != table.Root())
        standing = co_await Confirm(parent);
    if (standing == Standing::Here)
        co_return LocateForChange(call, parent, name, place);
    call->Fail(ESTALE);
    co_return false;
}

} // namespace fodr::agent
