// EventActor: what its thread is answered. The kernel believes nothing of it for longer than the call.
#include "agent/fuse/EventActor.h"
#include "agent/fuse/Fuse.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"

#include <cerrno>

namespace fodr::agent {
namespace {

using Kind = FolderEvent::Kind;

const std::string kNowhere = std::string(kHiddenPrefix) + "events";

fuse_entry_param EntryParam(const NodePtr &node, const FileFacts &facts, const Owner &owner)
{
    fuse_entry_param entry = {};
    entry.ino = node->id;
    entry.attr = StatOf(facts, node->id, owner);
    return entry;
}

fuse_file_info FileInfo()
{
    fuse_file_info info = {};
    info.fh = EventActor::kHandle;
    info.keep_cache = 1;
    info.noflush = 1;
    return info;
}

} // namespace

bool EventActor::IsActing(fuse_req *request) const
{
    const pid_t ours = threadId;
    return ours != 0 && fuse_req_ctx(request)->pid == ours;
}

// What the kernel is told of a size has to be the newest that is known: beyond an earlier one it drops what
// programs have read and mapped. Of two that are equally old the longer does no harm.
FileFacts EventActor::Newest(const NodePtr &node, const FileFacts &told) const
{
    FileFacts known;
    const bool knows = node->LastFacts(&known) && KindOf(known) == KindOf(told);
    const bool newer = known.changeTime > told.changeTime ||
                       (known.changeTime == told.changeTime && known.endOfFile > told.endOfFile);
    return knows && newer ? known : told;
}

// A file that programs of the mount write to, or have changed since the event was seen, has sizes of theirs,
// and its events come from them.
bool EventActor::HasOwnSize(const NodePtr &node) const
{
    const Node::Clock::time_point asked{Node::Clock::duration(askedAt.load())};
    return !node->directory && (node->opens.MayBeWritten() || node->ChangedSince(asked));
}

FileFacts EventActor::FactsOf(const NodePtr &node) const
{
    FileFacts facts;
    if (!node->LastFacts(&facts) && node->directory)
        facts.attributes = nt::FILE_ATTRIBUTE_DIRECTORY;
    return facts;
}

void EventActor::ReplyEntry(fuse_req *request, const NodePtr &node, const FileFacts &facts)
{
    const fuse_entry_param entry = EntryParam(node, facts, mount.options.owner);
    if (fuse_reply_entry(request, &entry) != 0)
        mount.table.Forget(node->id, 1);
}

// A folder of the same share that only the thread finds.
NodePtr EventActor::Nowhere(const NodePtr &folder)
{
    const NodePtr root = mount.table.ShareRootOf(folder);
    const NodePtr known = root ? mount.table.Child(root, kNowhere) : nullptr;
    if (known || !root)
        return known ? known : mount.table.Root();
    return mount.table.ReachNew(root, kNowhere, NodeKind::Directory);
}

NodePtr EventActor::StandIn(const NodePtr &folder, NodeKind kind)
{
    return mount.table.ReachNew(Nowhere(folder), "old", kind);
}

// What has lost the name. A folder may live on where it was moved to, and a folder that was removed can't be
// used any more: so another is removed in its place. So is that of a file which is no longer known by it, or
// has sizes that this side gives it.
NodePtr EventActor::Former(const NodePtr &folder, const std::string &name, const FileFacts &facts)
{
    const NodePtr known = mount.table.Child(folder, name);
    const NodeKind kind = KindOf(facts);
    if (known && kind != NodeKind::Directory && known->kind == kind && !HasOwnSize(known) &&
        mount.table.FileIdOf(known) == facts.id)
        return mount.table.Reach(folder, name, kind, facts.id);
    return StandIn(folder, kind);
}

// The file that moves: to a new name, or to that of a file which it replaces.
NodePtr EventActor::Moving(const NodePtr &parent, const std::string &name)
{
    const FolderEvent &event = *scene.event;
    const FileFacts &facts = event.facts;
    const NodePtr known = mount.table.FileInShareOf(event.folder, facts.id);
    scene.standsIn = known && HasOwnSize(known);
    if (scene.standsIn)
        return StandIn(event.folder, KindOf(facts));
    std::vector<Node::Name> lost;
    return mount.table.Reach(parent, name, KindOf(facts), facts.id, facts.links, &lost);
}

// Null for a name that isn't there to the thread; `*known` is false for one that has no part in the scene.
NodePtr EventActor::OnScene(const NodePtr &parent, const std::string &name, FileFacts *facts, bool *known)
{
    *known = true;
    const FolderEvent &event = *scene.event;
    *facts = event.facts;
    const bool isName = parent == event.folder && name == event.name;
    if (isName && event.kind == Kind::Made)
        return nullptr;
    if (isName && event.kind == Kind::Removed)
        return scene.subject = Former(parent, name, event.facts);
    if (isName && event.kind == Kind::Moved)
        return scene.subject = Moving(parent, name);
    if (isName && event.kind == Kind::Replaced) {
        *facts = event.former;
        return Former(parent, name, event.former);
    }
    if (event.kind == Kind::Replaced && name == kNewFile && parent == Nowhere(event.folder))
        return scene.subject = Moving(parent, name);
    if (event.kind == Kind::Moved && parent == event.newFolder && name == event.newName) {
        *facts = event.former;
        return event.overwrites ? Former(parent, name, event.former) : nullptr;
    }
    if (isName)
        return scene.subject = mount.Reach(parent, name, event.facts, event.facts.id);
    *known = false;
    return nullptr;
}

// A folder on the path to where the thread acts.
NodePtr EventActor::OnTheWay(const NodePtr &parent, const std::string &name, FileFacts *facts)
{
    const NodePtr known = mount.table.Child(parent, name);
    if (!known || !known->directory)
        return nullptr;
    *facts = FactsOf(known);
    return mount.table.Reach(parent, name, NodeKind::Directory, mount.table.FileIdOf(known));
}

void EventActor::Lookup(fuse_req *request, uint64_t parentId, const char *name)
{
    const NodePtr parent = mount.table.Find(parentId);
    NodePtr node;
    FileFacts facts;
    bool known = false;
    if (parent) {
        const MutexLock held(lock);
        if (scene.event)
            node = OnScene(parent, name, &facts, &known);
    }
    if (parent && !known)
        node = OnTheWay(parent, name, &facts);
    if (!node)
        fuse_reply_err(request, ENOENT);
    else if (!HasOwnSize(node))
        ReplyEntry(request, node, Newest(node, facts));
    else
        Refuse(request, node);
}

void EventActor::Refuse(fuse_req *request, const NodePtr &reached)
{
    mount.table.Forget(reached->id, 1);
    fuse_reply_err(request, EBUSY);
}

void EventActor::GetAttr(fuse_req *request, uint64_t nodeId)
{
    proof = nodeId;
    const NodePtr node = mount.table.Find(nodeId);
    if (!node || HasOwnSize(node)) {
        fuse_reply_err(request, node ? EBUSY : ESTALE);
        return;
    }
    const struct stat attributes = StatOf(FactsOf(node), node->id, mount.options.owner);
    fuse_reply_attr(request, &attributes, 0);
}

void EventActor::SetAttr(fuse_req *request, uint64_t nodeId)
{
    const NodePtr node = mount.table.Find(nodeId);
    if (!node || HasOwnSize(node)) {
        fuse_reply_err(request, node ? EBUSY : ESTALE);
        return;
    }
    FileFacts facts = FactsOf(node);
    {
        const MutexLock held(lock);
        if (scene.event && scene.event->kind != Kind::Many && KindOf(scene.event->facts) == node->kind)
            facts = Newest(node, scene.event->facts);
    }
    const struct stat attributes = StatOf(facts, nodeId, mount.options.owner);
    fuse_reply_attr(request, &attributes, 0);
}

void EventActor::Open(fuse_req *request)
{
    const fuse_file_info info = FileInfo();
    fuse_reply_open(request, &info);
}

// Null: the request is answered.
NodePtr EventActor::TakeMade(fuse_req *request, uint64_t parentId, const char *name, FileFacts *facts)
{
    const NodePtr parent = mount.table.Find(parentId);
    {
        const MutexLock held(lock);
        if (scene.event && scene.event->kind == Kind::Made && scene.event->folder == parent &&
            scene.event->name == name) {
            *facts = scene.event->facts;
            return scene.subject = mount.Reach(parent, name, *facts, facts->id);
        }
    }
    fuse_reply_err(request, EIO);
    return nullptr;
}

void EventActor::Create(fuse_req *request, uint64_t parent, const char *name)
{
    FileFacts facts;
    const NodePtr node = TakeMade(request, parent, name, &facts);
    if (!node)
        return;
    if (HasOwnSize(node))
        return Refuse(request, node);
    const fuse_entry_param entry = EntryParam(node, Newest(node, facts), mount.options.owner);
    const fuse_file_info info = FileInfo();
    if (fuse_reply_create(request, &entry, &info) != 0)
        mount.table.Forget(node->id, 1);
}

void EventActor::Make(fuse_req *request, uint64_t parent, const char *name)
{
    FileFacts facts;
    if (const NodePtr node = TakeMade(request, parent, name, &facts))
        ReplyEntry(request, node, facts);
}

// A name that the kernel didn't ask for may lead to anything: ESTALE makes it ask.
void EventActor::Remove(fuse_req *request, uint64_t parentId, const char *name)
{
    const NodePtr parent = mount.table.Find(parentId);
    NodePtr subject;
    bool ours = false;
    {
        const MutexLock held(lock);
        ours = scene.event && scene.event->kind == Kind::Removed && scene.event->folder == parent &&
               scene.event->name == name;
        if (ours)
            subject = scene.subject;
    }
    if (subject)
        mount.table.Remove(parent, name, subject);
    fuse_reply_err(request, !ours ? EIO : subject ? 0 : ESTALE);
}

void EventActor::Rename(fuse_req *request, uint64_t parentId, const char *name, uint64_t newParentId,
                        const char *newName)
{
    const NodePtr parent = mount.table.Find(parentId), newParent = mount.table.Find(newParentId);
    bool ours = false, lookedUp = false, standsIn = false;
    {
        const MutexLock held(lock);
        ours = parent && newParent && scene.event &&
               (scene.event->kind == Kind::Moved || scene.event->kind == Kind::Replaced);
        standsIn = scene.standsIn;
        lookedUp = ours && scene.subject && (standsIn || mount.table.Child(parent, name) == scene.subject);
    }
    if (lookedUp && !standsIn)
        mount.table.Rename(parent, name, newParent, newName);
    fuse_reply_err(request, !ours ? EIO : lookedUp ? 0 : ESTALE);
}

} // namespace fodr::agent
