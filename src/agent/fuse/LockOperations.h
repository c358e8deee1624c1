// Locks of fcntl and flock, which the host takes for the mount's programs. `handle` is that of the open file.
#pragma once

#include "agent/fuse/FileOpener.h"
#include "agent/fuse/HostLocks.h"

#include <atomic>

namespace fodr::agent {

class LockOperations {
public:
    LockOperations(MountState &mountState, PlaceFinder &placeFinder, FileOpener &fileOpener)
        : mount(mountState), places(placeFinder), opener(fileOpener)
    {}

    Detached GetLock(FuseCall::Ptr call, uint64_t handle, LockWish wish);
    Detached SetLock(FuseCall::Ptr call, uint64_t handle, LockWish wish, bool waits);
    // A process has closed a descriptor of the file: its locks go, and then `next` is called. The kernel
    // doesn't wait for that when the process is dying, so the handle may not hold any more by then.
    using Next = InlineFunction<void(const OpenFilePtr &file)>;
    Detached Closed(uint64_t handle, uint64_t owner, Next next);
    // Nobody has it open any more.
    void Released(uint64_t handle);
    // Whether locks that were taken through the open file went with a connection: what they kept whole may
    // have changed since.
    bool AreLost(uint64_t handle) const;
    void Clear() { owners.Clear(); }

private:
    Task<OpenFilePtr> OpenHandle(OpenFilePtr file, nt::NTSTATUS *status);
    Task<OpenFilePtr> OpenByName(NodePtr node, Place place, uint32_t access, nt::NTSTATUS *status);
    OpenFilePtr ShareHandle(const OpenFilePtr &file) const;
    Task<nt::NTSTATUS> TryLock(LockOwnerPtr owner, OpenFilePtr file, LockWish wish);
    Task<nt::NTSTATUS> WaitForLock(FuseCall::Ptr call, LockOwnerPtr owner, OpenFilePtr file, LockWish wish);
    Task<nt::NTSTATUS> Unlock(LockOwnerPtr owner, LockWish wish);
    Task<LockFound> TryForAMoment(LockOwnerPtr owner, OpenFilePtr file, LockWish wish);
    Task<Nothing> Restore(LockOwnerPtr owner, LockWish wish, LockRanges before);
    Task<Nothing> SeeOthersChanges(NodePtr node);
    Task<Nothing> Drop(LockOwnerPtr owner);
    Task<Nothing> End(LockOwnerPtr owner);
    Detached EndLater(LockOwnerPtr owner);

    // Shared memory (LockOperationsSide.cpp).
    bool IsSharedMemory(const NodePtr &node) const;
    static LockWish Shifted(const LockWish &wish);
    static std::optional<LockedRange> Unshifted(std::optional<LockedRange> range);
    Task<nt::NTSTATUS> TakeSide(OpenFilePtr file);
    Task<Nothing> LeaveSide(NodePtr node);
    Task<LockFound> QuerySide(OpenFilePtr file, LockWish wish);

    MountState &mount;
    PlaceFinder &places;
    FileOpener &opener;
    LockOwners owners;
};

} // namespace fodr::agent
