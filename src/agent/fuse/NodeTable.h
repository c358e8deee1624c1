// The files and folders that the kernel knows, by number and by place. A node keeps its number while it is
// renamed, and while its parents are. Any thread; one lock, held for a few instructions.
#pragma once

#include "agent/fuse/Node.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace fodr::agent {

class NodeTable {
public:
    static constexpr uint64_t kRootId = 1;

    NodeTable();

    NodePtr Root() const { return root; }
    // Null when the kernel names what it was never told of, or has forgotten.
    NodePtr Find(uint64_t id) const;
    // The child that is known under the name, without counting a lookup. Null when there is none.
    NodePtr Child(const NodePtr &parent, const std::string &name) const;
    // The node at the place, made if need be, with one more lookup. What was there of another kind has gone.
    NodePtr Reach(const NodePtr &parent, const std::string &name, bool directory);
    void Forget(uint64_t id, uint64_t lookups);

    // The name leads nowhere from now on.
    void Remove(const NodePtr &parent, const std::string &name);
    // What stood at the new place has gone.
    void Rename(const NodePtr &parent, const std::string &name, const NodePtr &newParent,
                const std::string &newName);

    // The node goes on under a name that the kernel doesn't know.
    void Hide(const NodePtr &parent, const std::string &name, const std::string &hiddenName);

    // Where a node, or a name in it, is: the share and the path within. False when it is nowhere any more, or
    // in no share.
    struct Place {
        std::shared_ptr<RemoteShare> share;
        std::u16string path; // begins with a backslash; the root is that alone
    };
    [[nodiscard]] bool PlaceOf(const NodePtr &node, Place *place) const;
    // Where the kernel last saw it: what is there by now may be another file.
    NodePtr ShownParentOf(const NodePtr &node) const; // of the root: itself
    [[nodiscard]] bool ShownPlaceOf(const NodePtr &node, Place *place) const;
    [[nodiscard]] bool PlaceIn(const NodePtr &parent, std::string_view name, Place *place) const;
    // The folder that a node stands in and its name there. False when it is nowhere, or the root.
    [[nodiscard]] bool SpotOf(const NodePtr &node, NodePtr *parent, std::string *name) const;
    // The root of the share that the node is in; null when it is in none.
    NodePtr ShareRootOf(const NodePtr &node) const;
    bool IsRemoved(const NodePtr &node) const;
    bool IsBelow(const NodePtr &node, const NodePtr &ancestor) const; // or the same
    std::vector<std::pair<std::string, uint64_t>> ChildrenOf(const NodePtr &node) const;

    // Where shares are: the root itself, or a folder in it.
    void SetRootShare(std::shared_ptr<RemoteShare> share);
    // False when the name is taken.
    [[nodiscard]] bool AddShareFolder(const std::string &name, std::shared_ptr<RemoteShare> share);
    // The folder's name, or empty when the share has none.
    std::string RemoveShareFolder(uint32_t deviceId);
    std::vector<std::string> ShareFolders() const;
    std::shared_ptr<RemoteShare> RootShare() const;
    // A share's folder, with one more lookup. Null when there is none of the name.
    NodePtr ReachShareFolder(const std::string &name);

private:
    void Detach(Node *node) REQUIRES(lock);
    void DropIfUnused(const NodePtr &node) REQUIRES(lock);
    void Move(const NodePtr &parent, const std::string &name, const NodePtr &newParent,
              const std::string &newName) REQUIRES(lock);
    NodePtr NewNode(const NodePtr &parent, const std::string &name, bool directory) REQUIRES(lock);
    bool LocatePath(const Node *node, Place *place) const REQUIRES(lock);

    mutable transport::Mutex lock;
    NodePtr root;
    uint64_t lastId GUARDED_BY(lock) = kRootId;
    std::unordered_map<uint64_t, NodePtr> nodes GUARDED_BY(lock);
    std::unordered_map<std::string, std::shared_ptr<RemoteShare>> shareFolders GUARDED_BY(lock);
};

} // namespace fodr::agent
