#include "agent/fuse/NodeTable.h"

#include "lib/unicode/NameMapping.h"

#include <algorithm>

namespace fodr::agent {

NodeTable::NodeTable() : root(std::make_shared<Node>(kRootId, NodeKind::Directory))
{
    const MutexLock held(lock);
    root->lookups = 1; // the mount's own, never forgotten
    nodes.emplace(kRootId, root);
}

NodePtr NodeTable::Find(uint64_t id) const
{
    const MutexLock held(lock);
    auto found = nodes.find(id);
    return found == nodes.end() ? nullptr : found->second;
}

NodePtr NodeTable::Child(const NodePtr &parent, const std::string &name) const
{
    const MutexLock held(lock);
    return ChildOf(parent, name);
}

// ---- Files and their names ----

NodePtr NodeTable::ChildOf(const NodePtr &parent, const std::string &name) const
{
    const auto found = parent->children.find(name);
    return found == parent->children.end() ? nullptr : nodes.at(found->second->id);
}

std::shared_ptr<RemoteShare> NodeTable::ShareOf(const Node *node) const
{
    while (!node->shareRoot && !node->names.empty())
        node = node->names.back().parent.get();
    return node->shareRoot ? node->shareRoot : node->movedShare;
}

// A file that was made by this mount is known by its name alone until its id is told. While nobody has it
// open it doesn't matter which file it is taken for.
bool NodeTable::Fits(Node *node, NodeKind kind, uint64_t fileId)
{
    if (node->kind != kind)
        return false;
    if (node->fileId == fileId)
        return true;
    if (node->fileId != 0 || node->opens.IsOpen())
        return false;
    std::shared_ptr<RemoteShare> share = ShareOf(node);
    if (byFileId.contains({share.get(), fileId}))
        return false;
    Index(node, std::move(share), fileId);
    return true;
}

void NodeTable::Index(Node *node, std::shared_ptr<RemoteShare> share, uint64_t fileId)
{
    node->fileId = fileId;
    if (fileId != 0 && byFileId.emplace(IdKey{share.get(), fileId}, node).second)
        node->shareOfId = std::move(share);
}

void NodeTable::Unindex(Node *node)
{
    if (node->shareOfId)
        byFileId.erase({node->shareOfId.get(), node->fileId});
    node->shareOfId = nullptr;
}

NodePtr NodeTable::NewNode(const NodePtr &parent, const std::string &name, NodeKind kind)
{
    auto node = std::make_shared<Node>(++lastId, kind);
    nodes.emplace(node->id, node);
    node->names.push_back({parent, name});
    parent->children.insert_or_assign(name, node.get());
    return node;
}

bool NodeTable::AddName(Node *node, const NodePtr &parent, const std::string &name)
{
    if (node->directory) {
        if (node == parent.get())
            return false;
        // The other side has moved it. What leads from it to its new parent was seen before that.
        RemoveAllNames(node);
        for (Node *at = parent.get(); !at->names.empty();) {
            Node *above = at->names.back().parent.get();
            if (above == node) {
                RemoveAllNames(at);
                break;
            }
            at = above;
        }
    }
    node->names.push_back({parent, name});
    parent->children.insert_or_assign(name, node);
    return true;
}

void NodeTable::RemoveName(Node *node, Node *parent, const std::string &name)
{
    auto found = parent->children.find(name);
    if (found != parent->children.end() && found->second == node)
        parent->children.erase(found);
    NoteFormer(node);
    std::erase_if(node->names, [&](const Node::Name &known) {
        return known.parent.get() == parent && known.text == name;
    });
}

void NodeTable::TakeName(const NodePtr &node, const NodePtr &parent, const std::string &name)
{
    RemoveName(node.get(), parent.get(), name);
    DropIfUnused(node);
}

void NodeTable::NoteFormer(Node *node)
{
    if (node->names.empty())
        return;
    node->formerParent = node->names.back().parent;
    node->formerName = node->names.back().text;
}

void NodeTable::RemoveAllNames(Node *node)
{
    NoteFormer(node);
    node->movedTo.clear();
    node->movedShare = nullptr;
    for (const Node::Name &name : std::exchange(node->names, {})) {
        auto found = name.parent->children.find(name.text);
        if (found != name.parent->children.end() && found->second == node)
            name.parent->children.erase(found);
    }
}

NodePtr NodeTable::Reach(const NodePtr &parent, const std::string &name, NodeKind kind, uint64_t fileId,
                         uint32_t links, std::vector<Node::Name> *lost)
{
    const MutexLock held(lock);
    NodePtr node = ChildOf(parent, name);
    if (node && !Fits(node.get(), kind, fileId)) {
        TakeName(node, parent, name);
        node = nullptr;
    }
    if (node && node->names.size() > 1) { // seen last
        RemoveName(node.get(), parent.get(), name);
        AddName(node.get(), parent, name);
    }
    std::shared_ptr<RemoteShare> share = node ? nullptr : ShareOf(parent.get());
    if (!node && fileId != 0) {
        auto known = byFileId.find({share.get(), fileId});
        if (known != byFileId.end() && known->second->kind == kind) {
            node = nodes.at(known->second->id);
            if (lost && (node->directory || node->names.size() >= links)) {
                *lost = node->names;
                RemoveAllNames(node.get());
            }
            if (!AddName(node.get(), parent, name))
                node = nullptr;
        }
    }
    if (!node) {
        node = NewNode(parent, name, kind);
        Index(node.get(), std::move(share), fileId);
    }
    ++node->lookups;
    return node;
}

NodePtr NodeTable::FileInShareOf(const NodePtr &folder, uint64_t fileId) const
{
    const MutexLock held(lock);
    const auto known = byFileId.find({ShareOf(folder.get()).get(), fileId});
    return known == byFileId.end() ? nullptr : nodes.at(known->second->id);
}

NodePtr NodeTable::ReachNew(const NodePtr &parent, const std::string &name, NodeKind kind)
{
    const MutexLock held(lock);
    if (const NodePtr present = ChildOf(parent, name))
        TakeName(present, parent, name);
    const NodePtr node = NewNode(parent, name, kind);
    ++node->lookups;
    return node;
}

void NodeTable::Forget(uint64_t id, uint64_t lookups)
{
    const MutexLock held(lock);
    auto found = nodes.find(id);
    if (found == nodes.end() || id == kRootId)
        return;
    const NodePtr node = found->second;
    node->lookups -= std::min(node->lookups, lookups);
    DropIfUnused(node);
}

// Its parents stay while it does, so that its path can be told.
void NodeTable::DropIfUnused(const NodePtr &node)
{
    if (node->lookups != 0 || !node->children.empty() || node == root || !nodes.contains(node->id))
        return;
    const std::vector<Node::Name> names = node->names;
    RemoveAllNames(node.get());
    Unindex(node.get());
    nodes.erase(node->id);
    for (const Node::Name &name : names) {
        name.parent->TakeChangeOf(*node);
        DropIfUnused(name.parent);
    }
}

uint64_t NodeTable::FileIdOf(const NodePtr &node) const
{
    const MutexLock held(lock);
    return node->fileId;
}

void NodeTable::SetFileId(const NodePtr &node, uint64_t fileId)
{
    const MutexLock held(lock);
    if (node->fileId == fileId)
        return;
    Unindex(node.get());
    Index(node.get(), ShareOf(node.get()), fileId);
}

void NodeTable::Remove(const NodePtr &parent, const std::string &name, const NodePtr &node)
{
    const MutexLock held(lock);
    const NodePtr present = ChildOf(parent, name);
    if (present && (!node || present == node))
        TakeName(present, parent, name);
}

void NodeTable::Rename(const NodePtr &parent, const std::string &name, const NodePtr &newParent,
                       const std::string &newName)
{
    const MutexLock held(lock);
    const NodePtr node = ChildOf(parent, name), replaced = ChildOf(newParent, newName);
    if (replaced && replaced != node)
        TakeName(replaced, newParent, newName);
    if (!node)
        return;
    RemoveName(node.get(), parent.get(), name);
    if (!AddName(node.get(), newParent, newName))
        DropIfUnused(node);
}

// ---- Places ----

bool NodeTable::LocatePath(const Node *node, Place *place) const
{
    if (node->shareRoot) {
        place->share = node->shareRoot;
        place->path.clear();
        return true;
    }
    if (node->names.empty() && !node->movedTo.empty()) {
        place->share = node->movedShare;
        place->path = node->movedTo;
        return true;
    }
    if (node->names.empty() || !LocatePath(node->names.back().parent.get(), place))
        return false;
    place->path += u'\\';
    AppendNtName(node->names.back().text, place->path);
    return true;
}

bool NodeTable::PlaceOf(const NodePtr &node, Place *place) const
{
    const MutexLock held(lock);
    if (!LocatePath(node.get(), place))
        return false;
    if (place->path.empty())
        place->path = u"\\";
    return true;
}

bool NodeTable::PlaceIn(const NodePtr &parent, std::string_view name, Place *place) const
{
    const MutexLock held(lock);
    if (!LocatePath(parent.get(), place))
        return false;
    place->path += u'\\';
    AppendNtName(name, place->path);
    return true;
}

bool NodeTable::ParentAndNameOf(const NodePtr &node, NodePtr *parent, std::string *name) const
{
    const MutexLock held(lock);
    if (node->names.empty())
        return false;
    *parent = node->names.back().parent;
    *name = node->names.back().text;
    return true;
}

std::vector<Node::Name> NodeTable::OtherNamesOf(const NodePtr &node) const
{
    const MutexLock held(lock);
    if (node->names.size() < 2)
        return {};
    return {node->names.begin(), node->names.end() - 1};
}

bool NodeTable::FormerPlaceOf(const NodePtr &node, NodePtr *parent, std::string *name) const
{
    const MutexLock held(lock);
    *parent = node->formerParent.lock();
    *name = node->formerName;
    return *parent && node->names.empty();
}

void NodeTable::SetMovedTo(const NodePtr &folder, const std::shared_ptr<RemoteShare> &share,
                           const std::u16string &path)
{
    const MutexLock held(lock);
    RemoveAllNames(folder.get());
    folder->movedTo = path;
    folder->movedShare = share;
}

bool NodeTable::IsMoved(const NodePtr &folder) const
{
    const MutexLock held(lock);
    return folder->names.empty() && !folder->movedTo.empty();
}

std::vector<NodePtr> NodeTable::ParentsOf(const NodePtr &node) const
{
    const MutexLock held(lock);
    std::vector<NodePtr> parents;
    for (const Node *at = node.get(); !at->shareRoot && !at->names.empty();) {
        parents.push_back(at->names.back().parent);
        at = parents.back().get();
    }
    std::reverse(parents.begin(), parents.end());
    return parents;
}

NodePtr NodeTable::RootOf(const std::shared_ptr<RemoteShare> &share) const
{
    const MutexLock held(lock);
    if (root->shareRoot == share)
        return root;
    for (const auto &[name, child] : root->children) {
        if (child->shareRoot == share)
            return nodes.at(child->id);
    }
    return nullptr;
}

NodePtr NodeTable::ShareRootOf(const NodePtr &node) const
{
    const MutexLock held(lock);
    NodePtr at = node;
    while (at && !at->shareRoot)
        at = at->names.empty() ? nullptr : at->names.back().parent;
    return at;
}

bool NodeTable::HasName(const NodePtr &node) const
{
    const MutexLock held(lock);
    return node == root || !node->names.empty();
}

bool NodeTable::IsBelow(const NodePtr &node, const NodePtr &ancestor) const
{
    const MutexLock held(lock);
    for (const Node *at = node.get();; at = at->names.back().parent.get()) {
        if (at == ancestor.get())
            return true;
        if (at->names.empty())
            return false;
    }
}

std::vector<std::pair<std::string, NodePtr>> NodeTable::ChildrenOf(const NodePtr &node) const
{
    const MutexLock held(lock);
    std::vector<std::pair<std::string, NodePtr>> children;
    children.reserve(node->children.size());
    for (const auto &[name, child] : node->children)
        children.emplace_back(name, nodes.at(child->id));
    return children;
}

// ---- Shares ----

bool NodeTable::AddShareFolder(const std::string &name, std::shared_ptr<RemoteShare> share)
{
    const MutexLock held(lock);
    return shareFolders.emplace(name, std::move(share)).second;
}

std::string NodeTable::RemoveShareFolder(uint32_t deviceId)
{
    const MutexLock held(lock);
    for (auto folder = shareFolders.begin(); folder != shareFolders.end(); ++folder) {
        if (folder->second->Device().id != deviceId)
            continue;
        const std::string name = folder->first;
        shareFolders.erase(folder);
        if (const NodePtr gone = ChildOf(root, name)) {
            RemoveAllNames(gone.get());
            gone->shareRoot = nullptr;
            DropIfUnused(gone);
        }
        return name;
    }
    return {};
}

std::vector<std::string> NodeTable::ShareFolders() const
{
    const MutexLock held(lock);
    std::vector<std::string> names;
    for (const auto &folder : shareFolders)
        names.push_back(folder.first);
    std::sort(names.begin(), names.end());
    return names;
}

NodePtr NodeTable::ReachShareFolder(const std::string &name)
{
    const MutexLock held(lock);
    auto folder = shareFolders.find(name);
    if (folder == shareFolders.end())
        return nullptr;
    NodePtr node = ChildOf(root, name);
    if (!node)
        node = NewNode(root, name, NodeKind::Directory);
    node->shareRoot = folder->second;
    ++node->lookups;
    return node;
}

} // namespace fodr::agent
