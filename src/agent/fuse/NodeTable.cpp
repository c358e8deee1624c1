#include "agent/fuse/NodeTable.h"

#include "lib/unicode/NameMapping.h"

#include <algorithm>

namespace fodr::agent {

using transport::MutexLock;

NodeTable::NodeTable() : root(std::make_shared<Node>(kRootId, true))
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
    auto found = parent->children.find(name);
    return found == parent->children.end() ? nullptr : nodes.at(found->second->id);
}

NodePtr NodeTable::NewNode(const NodePtr &parent, const std::string &name, bool directory)
{
    auto node = std::make_shared<Node>(++lastId, directory);
    node->parent = node->shownParent = parent;
    node->name = node->shownName = name;
    nodes.emplace(node->id, node);
    parent->children.emplace(name, node.get());
    return node;
}

NodePtr NodeTable::Reach(const NodePtr &parent, const std::string &name, bool directory)
{
    const MutexLock held(lock);
    auto found = parent->children.find(name);
    if (found != parent->children.end() && found->second->directory != directory) {
        Detach(found->second);
        found = parent->children.end();
    }
    const NodePtr node =
        found == parent->children.end() ? NewNode(parent, name, directory) : nodes.at(found->second->id);
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

// Its parents stay while it does, so that paths can be told.
void NodeTable::DropIfUnused(const NodePtr &node)
{
    NodePtr at = node;
    while (at && at->lookups == 0 && at->children.empty()) {
        const NodePtr parent = at->parent;
        if (parent)
            parent->TakeChangeOf(*at);
        Detach(at.get());
        nodes.erase(at->id);
        at = parent;
    }
}

// The node loses its place; its number lives on while the kernel counts lookups.
void NodeTable::Detach(Node *node)
{
    if (!node->parent)
        return;
    auto found = node->parent->children.find(node->name);
    if (found != node->parent->children.end() && found->second == node)
        node->parent->children.erase(found);
    node->parent = nullptr;
    node->removed = true;
}

void NodeTable::Remove(const NodePtr &parent, const std::string &name)
{
    const MutexLock held(lock);
    auto found = parent->children.find(name);
    if (found == parent->children.end())
        return;
    const NodePtr node = nodes.at(found->second->id);
    Detach(node.get());
    DropIfUnused(node);
}

void NodeTable::Move(const NodePtr &parent, const std::string &name, const NodePtr &newParent,
                     const std::string &newName)
{
    auto found = parent->children.find(name);
    const NodePtr node = found == parent->children.end() ? nullptr : nodes.at(found->second->id);
    auto replaced = newParent->children.find(newName);
    if (replaced != newParent->children.end() && replaced->second != node.get()) {
        const NodePtr gone = nodes.at(replaced->second->id);
        Detach(gone.get());
        DropIfUnused(gone);
    }
    if (!node)
        return;
    parent->children.erase(name);
    node->parent = newParent;
    node->name = newName;
    newParent->children.insert_or_assign(newName, node.get());
}

void NodeTable::Rename(const NodePtr &parent, const std::string &name, const NodePtr &newParent,
                       const std::string &newName)
{
    const MutexLock held(lock);
    Move(parent, name, newParent, newName);
    auto moved = newParent->children.find(newName);
    if (moved == newParent->children.end())
        return;
    moved->second->shownParent = newParent;
    moved->second->shownName = newName;
}

void NodeTable::Hide(const NodePtr &parent, const std::string &name, const std::string &hiddenName)
{
    const MutexLock held(lock);
    Move(parent, name, parent, hiddenName);
}

NodePtr NodeTable::ShownParentOf(const NodePtr &node) const
{
    const MutexLock held(lock);
    return node->shownParent ? node->shownParent : node;
}

bool NodeTable::ShownPlaceOf(const NodePtr &node, Place *place) const
{
    NodePtr parent;
    std::string name;
    {
        const MutexLock held(lock);
        parent = node->shownParent;
        name = node->shownName;
    }
    return parent && PlaceIn(parent, name, place);
}

bool NodeTable::LocatePath(const Node *node, Place *place) const
{
    if (node->removed)
        return false;
    if (node->shareRoot) {
        place->share = node->shareRoot;
        return true;
    }
    if (!node->parent || !LocatePath(node->parent.get(), place))
        return false;
    place->path += u'\\';
    AppendNtName(node->name, place->path);
    return true;
}

bool NodeTable::PlaceOf(const NodePtr &node, Place *place) const
{
    const MutexLock held(lock);
    place->path.clear();
    if (!LocatePath(node.get(), place))
        return false;
    if (place->path.empty())
        place->path = u"\\";
    return true;
}

bool NodeTable::PlaceIn(const NodePtr &parent, std::string_view name, Place *place) const
{
    const MutexLock held(lock);
    place->path.clear();
    if (!LocatePath(parent.get(), place))
        return false;
    place->path += u'\\';
    AppendNtName(name, place->path);
    return true;
}

bool NodeTable::SpotOf(const NodePtr &node, NodePtr *parent, std::string *name) const
{
    const MutexLock held(lock);
    *parent = node->parent;
    *name = node->name;
    return node->parent != nullptr;
}

NodePtr NodeTable::ShareRootOf(const NodePtr &node) const
{
    const MutexLock held(lock);
    NodePtr at = node;
    while (at && !at->shareRoot)
        at = at->parent;
    return at;
}

bool NodeTable::IsRemoved(const NodePtr &node) const
{
    const MutexLock held(lock);
    return node->removed;
}

bool NodeTable::IsBelow(const NodePtr &node, const NodePtr &ancestor) const
{
    const MutexLock held(lock);
    for (const Node *at = node.get(); at; at = at->parent.get()) {
        if (at == ancestor.get())
            return true;
    }
    return false;
}

std::vector<std::pair<std::string, uint64_t>> NodeTable::ChildrenOf(const NodePtr &node) const
{
    const MutexLock held(lock);
    std::vector<std::pair<std::string, uint64_t>> children;
    for (const auto &[name, child] : node->children)
        children.emplace_back(name, child->id);
    return children;
}

void NodeTable::SetRootShare(std::shared_ptr<RemoteShare> share)
{
    const MutexLock held(lock);
    root->shareRoot = std::move(share);
}

std::shared_ptr<RemoteShare> NodeTable::RootShare() const
{
    const MutexLock held(lock);
    return root->shareRoot;
}

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
        auto found = root->children.find(name);
        if (found != root->children.end())
            Detach(found->second);
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
    auto found = root->children.find(name);
    const NodePtr node =
        found == root->children.end() ? NewNode(root, name, true) : nodes.at(found->second->id);
    node->shareRoot = folder->second;
    ++node->lookups;
    return node;
}

} // namespace fodr::agent
