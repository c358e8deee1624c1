// The files and folders that the kernel knows, by number, by the other side's id and by place. A node keeps
// its number while it is renamed, and while its parents are. Any thread; one lock, held for a few
// instructions and taken before those of a node.
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
    // The file of the id in the folder's share, if it is known by any name. Null else.
    NodePtr FileInShareOf(const NodePtr &folder, uint64_t fileId) const;
    // The node of the file that the name leads to, made if need be, with one more lookup. `fileId` is 0 where
    // the file is known by its name alone. What the name led to before, if it was another file, loses the
    // name. When the node has more names than the file has `links`, the earlier ones lead elsewhere: `*lost`
    // gets them.
    NodePtr Reach(const NodePtr &parent, const std::string &name, NodeKind kind, uint64_t fileId,
                  uint32_t links = 0, std::vector<Node::Name> *lost = nullptr);
    // The same for a file that was made this moment, whose id isn't known yet.
    NodePtr ReachNew(const NodePtr &parent, const std::string &name, NodeKind kind);
    void Forget(uint64_t id, uint64_t lookups);

    uint64_t FileIdOf(const NodePtr &node) const; // 0: not known
    // A handle of the node told the id.
    void SetFileId(const NodePtr &node, uint64_t fileId);

    // The name leads nowhere from now on. With a node: only if that is where it led.
    void Remove(const NodePtr &parent, const std::string &name, const NodePtr &node = nullptr);
    // What stood at the new place has lost that name.
    void Rename(const NodePtr &parent, const std::string &name, const NodePtr &newParent,
                const std::string &newName);

    // Where a node, or a name in it, is: the share and the path within. False when it is nowhere any more, or
    // in no share.
    struct Place {
        std::shared_ptr<RemoteShare> share;
        std::u16string path; // begins with a backslash; the root is that alone
    };
    [[nodiscard]] bool PlaceOf(const NodePtr &node, Place *place) const;
    [[nodiscard]] bool PlaceIn(const NodePtr &parent, std::string_view name, Place *place) const;
    // The folder that a node was last seen in, and its name there. False when it has no name.
    [[nodiscard]] bool ParentAndNameOf(const NodePtr &node, NodePtr *parent, std::string *name) const;
    // Its names but the one that was seen last.
    std::vector<Node::Name> OtherNamesOf(const NodePtr &node) const;
    // Where a node without a name was last.
    [[nodiscard]] bool FormerPlaceOf(const NodePtr &node, NodePtr *parent, std::string *name) const;
    // A folder that the other side has moved somewhere that isn't known by name: `path` is in its share.
    void SetMovedTo(const NodePtr &folder, const std::shared_ptr<RemoteShare> &share,
                    const std::u16string &path);
    bool IsMoved(const NodePtr &folder) const;
    // The folders on the way to a node, the share's root or a moved folder first, without the node.
    std::vector<NodePtr> ParentsOf(const NodePtr &node) const;
    // The folder that stands for the share; null when there is none.
    NodePtr RootOf(const std::shared_ptr<RemoteShare> &share) const;
    // The root of the share that the node is in; null when it is in none.
    NodePtr ShareRootOf(const NodePtr &node) const;
    bool HasName(const NodePtr &node) const;                          // the root has
    bool IsBelow(const NodePtr &node, const NodePtr &ancestor) const; // or the same
    std::vector<std::pair<std::string, NodePtr>> ChildrenOf(const NodePtr &node) const;

    // Where shares are: the root itself, or a folder in it.
    void SetRootShare(std::shared_ptr<RemoteShare> share)
    {
        const MutexLock held(lock);
        root->shareRoot = std::move(share);
    }
    // False when the name is taken.
    [[nodiscard]] bool AddShareFolder(const std::string &name, std::shared_ptr<RemoteShare> share);
    // The folder's name, or empty when the share has none.
    std::string RemoveShareFolder(uint32_t deviceId);
    std::vector<std::string> ShareFolders() const;
    std::shared_ptr<RemoteShare> RootShare() const
    {
        const MutexLock held(lock);
        return root->shareRoot;
    }
    // A share's folder, with one more lookup. Null when there is none of the name.
    NodePtr ReachShareFolder(const std::string &name);

private:
    struct IdKey {
        const RemoteShare *share; // kept alive by the node
        uint64_t fileId;
        bool operator==(const IdKey &) const = default;
    };
    struct IdHash {
        size_t operator()(const IdKey &key) const { return key.fileId * 0x9E3779B97F4A7C15u; }
    };

    std::shared_ptr<RemoteShare> ShareOf(const Node *node) const REQUIRES(lock);
    bool Fits(Node *node, NodeKind kind, uint64_t fileId) REQUIRES(lock);
    void Index(Node *node, std::shared_ptr<RemoteShare> share, uint64_t fileId) REQUIRES(lock);
    void Unindex(Node *node) REQUIRES(lock);
    NodePtr NewNode(const NodePtr &parent, const std::string &name, NodeKind kind) REQUIRES(lock);
    // False: a folder would be in itself.
    bool AddName(Node *node, const NodePtr &parent, const std::string &name) REQUIRES(lock);
    void RemoveName(Node *node, Node *parent, const std::string &name) REQUIRES(lock);
    void RemoveAllNames(Node *node) REQUIRES(lock);
    NodePtr ChildOf(const NodePtr &parent, const std::string &name) const REQUIRES(lock);
    // The name doesn't lead to the node any more; who isn't used otherwise goes.
    void TakeName(const NodePtr &node, const NodePtr &parent, const std::string &name) REQUIRES(lock);
    static void NoteFormer(Node *node);
    void DropIfUnused(const NodePtr &node) REQUIRES(lock);
    bool LocatePath(const Node *node, Place *place) const REQUIRES(lock);

    mutable Mutex lock;
    NodePtr root;
    uint64_t lastId GUARDED_BY(lock) = kRootId;
    std::unordered_map<uint64_t, NodePtr> nodes GUARDED_BY(lock);
    std::unordered_map<IdKey, Node *, IdHash> byFileId GUARDED_BY(lock);
    std::unordered_map<std::string, std::shared_ptr<RemoteShare>> shareFolders GUARDED_BY(lock);
};

} // namespace fodr::agent
