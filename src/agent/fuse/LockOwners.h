// Who holds locks through this mount, and which. Each owner has a handle of its own on the host, since the
// locks of one handle don't exclude one another. Any thread.
#pragma once

#include "agent/fuse/Node.h"
#include "lib/misc/LockRanges.h"

#include <optional>

namespace fodr::agent {

// A lock as the kernel asks for it.
struct LockWish {
    uint64_t owner = 0; // a process for fcntl, an open file for flock and the locks of open files
    int process = 0;
    bool whole = false; // flock
    uint64_t begin = 0;
    uint64_t end = 0;
    std::optional<bool> exclusive{}; // without: an unlock
};

// NT's locks are unlocked as they were locked.
LockRanges::Neighbours NeighboursOf(const RemoteFilePtr &handle);

class LockOwner {
public:
    LockOwner(NodePtr ownerNode, uint64_t ownerId) : node(std::move(ownerNode)), id(ownerId) {}

    const NodePtr node;
    const uint64_t id;
    NameGate gate; // its calls go one by one; those that wait for others' locks aren't in it

    void SetHandle(RemoteFilePtr file);
    RemoteFilePtr Handle() const; // null: it never locked anything, or has left
    // Another connection took the handle, and what it held, along.
    bool IsLost() const;

    void Note(const LockWish &wish); // it was granted
    LockRanges Bytes() const;
    std::optional<bool> Whole() const; // its flock; whether it is an exclusive one
    bool HoldsNothing() const;
    bool Covers(const LockWish &wish) const; // holds something of the whole range
    // What keeps another owner from what it wants.
    std::optional<LockedRange> InTheWayOf(const LockWish &wish) const;
    int Process() const;

private:
    mutable Mutex lock;
    RemoteFilePtr handle GUARDED_BY(lock);
    LockRanges bytes GUARDED_BY(lock);
    std::optional<bool> whole GUARDED_BY(lock);
    int process GUARDED_BY(lock) = 0;

    friend class LockOwners; // by its lock:
    // What was taken last through one open of the file.
    struct Claim {
        const RemoteFile *file;
        LockRanges bytes{};
        bool whole = false;
    };
    size_t calls = 0;
    std::vector<Claim> claims;
};
using LockOwnerPtr = std::shared_ptr<LockOwner>;

class LockOwners {
public:
    // The owner that stands for this whole mount (LockOperationsSide.cpp).
    static constexpr uint64_t kSide = 0;

    // For a call; Leave ends it. Without `make` null when there is no such owner.
    LockOwnerPtr Enter(const NodePtr &node, uint64_t owner, bool make);
    // Before a lock is asked for: from now on the range goes with this open of the file. The kernel names the
    // owner of flock and of open files' locks by an id that it uses again, so an owner that was closed may
    // come back through another open before its end is told.
    void Claim(const LockOwnerPtr &owner, const RemoteFilePtr &file, const LockWish &wish);
    // An owner without a handle is forgotten with its last call.
    void Leave(const LockOwnerPtr &owner);

    LockOwnerPtr Find(const NodePtr &node, uint64_t owner) const;
    std::vector<LockOwnerPtr> Of(const NodePtr &node) const;
    // Those that have locked anything through this open.
    std::vector<LockOwnerPtr> Through(const RemoteFilePtr &file) const;
    // The open has ended: what nobody has claimed since, and whether the owner came through no other.
    struct Left {
        std::vector<LockWish> locks; // each as it is to be unlocked
        bool all = false;
    };
    Left LeaveFile(const LockOwnerPtr &owner, const RemoteFilePtr &file);
    void Clear();

private:
    std::atomic<size_t> count{0}; // of most mounts 0
    mutable Mutex lock;
    std::unordered_map<const Node *, std::vector<LockOwnerPtr>> owners GUARDED_BY(lock);
};

// A call of an owner, for as long as this lives.
class LockCall {
public:
    LockCall(LockOwners &lockOwners, const NodePtr &node, uint64_t id, bool make)
        : owners(lockOwners), owner(lockOwners.Enter(node, id, make))
    {}
    ~LockCall()
    {
        if (owner)
            owners.Leave(owner);
    }
    LockCall(const LockCall &) = delete;
    LockCall &operator=(const LockCall &) = delete;
    const LockOwnerPtr &Owner() const { return owner; } // null: there is none

private:
    LockOwners &owners;
    const LockOwnerPtr owner;
};

// Locks as a host is asked for them: by one request where it knows advisory locks, else by NT's range locks
// in the same place, which other agents see.

// Sets what the owner holds of the range, without waiting: STATUS_LOCK_NOT_GRANTED where others are in the
// way. The caller is in the owner's gate. What is granted is noted with the owner.
Task<nt::NTSTATUS> SetHostLock(LockOwnerPtr owner, RemoteFilePtr handle, LockWish wish);
// Waits on the host, which has to know advisory locks, for what isn't free. STATUS_CANCELLED: EndHostWaits
// came.
Task<nt::NTSTATUS> AwaitHostLock(RemoteFilePtr handle, LockWish wish);
void EndHostWaits(const RemoteFilePtr &handle);

struct LockFound {
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    std::optional<LockedRange> range; // none: nothing is in the way
};
Task<LockFound> QueryHostLock(RemoteFilePtr handle, LockWish wish);

} // namespace fodr::agent
