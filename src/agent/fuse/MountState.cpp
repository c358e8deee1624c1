#include "agent/fuse/MountState.h"

#include "agent/fuse/Fuse.h"

#include <algorithm>

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

MountState::MountState(const Options &mountOptions)
    : options(mountOptions),
      directories(
          table, [this](auto &directory, auto next) { OnDirectoryChanged(directory, std::move(next)); },
          [this](auto &directory) { OnDirectoryLeft(directory); },
          [this](auto &directory) {
              if (observer)
                  observer->OnWatched(directory);
          })
{}

// Of a busy folder the kernel believes what it learns for a short time only. What it learnt before, it is
// told to forget once.
void MountState::OnDirectoryChanged(const NodePtr &directory, InlineFunction<void()> next)
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
    if (observer)
        observer->OnChanged(directory, !next);
    // Not before the kernel has been told of this change: an owner who changes one file after the other would
    // bring notices faster than they are told.
    if (next)
        notifier.CallAt(busy ? now + kLookAgain : now, std::move(next));
}

// What the kernel still believes of its names isn't corrected by a notice any more.
void MountState::OnDirectoryLeft(const NodePtr &directory)
{
    if (Node::Clock::now() - directory->LongAnswerAt() < CacheSpan())
        ForgetInKernel(directory, table.ChildrenOf(directory));
}

NodePtr MountState::Reach(const NodePtr &parent, const std::string &name, const FileFacts &facts,
                          uint64_t fileId)
{
    std::vector<Node::Name> lost;
    const NodePtr node = table.Reach(parent, name, KindOf(facts), fileId, facts.links, &lost);
    if (observer && node->directory)
        observer->OnUsed(node);
    for (const Node::Name &former : lost)
        notifier.NameChanged(former.parent->id, former.text);
    if (!lost.empty())
        node->NoteRenamed(kNameLost);
    else
        node->NoteLookedUp();
    return node;
}

void MountState::LoseName(const NodePtr &parent, const std::string &name, const NodePtr &node)
{
    table.Remove(parent, name, node);
    notifier.NameChanged(parent->id, name);
}

void MountState::ForgetInKernel(const NodePtr &directory, const Children &children)
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
Detached MountState::LookAgain(NodePtr node)
{
    const RemoteFilePtr file = node->opens.Any(false);
    if (!file || node->opens.Any(true))
        co_return;
    FileFacts facts;
    const nt::NTSTATUS status = co_await file->share->QueryFacts(file->fileId, &facts);
    if (!nt::IsError(status) && node->NoteFacts(facts))
        notifier.DataChanged(node->id);
}

double MountState::NameSeconds(const NodePtr &folder, Node::Clock::time_point asked) const
{
    folder->NoteLongAnswer();
    const bool watched = folder->IsWatchedSince(asked) && folder->NoticedAt() < asked && !folder->IsBusy();
    return SecondsLeft(asked, watched ? CacheSpan() : UnwatchedSpan());
}

// A folder's own changes are told to those who watch it. Those of a file under another name, or of one that
// was moved while it is open, are told in another folder.
double MountState::AttributeSeconds(const NodePtr &node, const FileFacts &facts,
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

EntryAnswer MountState::AnswerFor(const NodePtr &parent, const NodePtr &node, const FileFacts &facts,
                                  bool lasting, Node::Clock::time_point asked) const
{
    const double seconds = NameSeconds(parent, asked);
    return {.node = node->id,
            .attributes = StatOf(facts, node->id, options.owner),
            .nameSeconds = seconds,
            .attributeSeconds = lasting ? AttributeSeconds(node, facts, asked, seconds) : 0};
}

// Whether this mount has changed what was told of the folder's entry since it was asked for.
bool MountState::ChangedBySelf(const NodePtr &parent, const std::string &name,
                               Node::Clock::time_point asked) const
{
    if (parent->ChangedSince(asked))
        return true;
    const NodePtr node = table.Child(parent, name);
    return node && (node->ChangedSince(asked) || node->opens.Any(true));
}

void MountState::ReplyAttributes(const FuseCall::Ptr &call, const NodePtr &node, const Found &found) const
{
    if (nt::IsError(found.status)) {
        call->FailOfFile(found.status);
        return;
    }
    struct stat attributes = StatOf(found.facts, node->id, options.owner);
    if (found.facts.id == 0 && (!table.HasName(node) || node->opens.IsDeleted()))
        attributes.st_nlink = 0;
    NodePtr parent;
    std::string name;
    if (!table.ParentAndNameOf(node, &parent, &name))
        parent = node;
    const double folderSeconds = NameSeconds(parent, found.asked);
    call->Attributes(attributes, AttributeSeconds(node, found.facts, found.asked, folderSeconds));
}

// `node` has one lookup more for this answer.
bool MountState::ReplyEntry(const FuseCall::Ptr &call, const NodePtr &parent, const NodePtr &node,
                            const FileFacts &facts, bool lasting, Node::Clock::time_point asked)
{
    if (call->Entry(AnswerFor(parent, node, facts, lasting, asked)))
        return true;
    table.Forget(node->id, 1);
    return false;
}

void MountState::CloseLater(const NodePtr &node, const std::shared_ptr<RemoteShare> &share, uint32_t fileId)
{
    if (node)
        node->opens.BeginClose();
    share->Close(fileId, [node](const IoResult &) {
        if (node)
            node->opens.EndClose();
    });
}

// Files that a share names one by one may be links: what they lead to is meant.
bool MountState::FollowsLinks(const NodePtr &node, const Place &place) const
{
    NodePtr parent;
    std::string name;
    return !place.share->HasIds() ||
           (place.share->Device().IsTagged() && table.ParentAndNameOf(node, &parent, &name) &&
            table.ShareRootOf(parent) == parent);
}

} // namespace fodr::agent
