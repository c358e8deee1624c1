// Locks as a host is asked for them: by one request where it knows advisory locks, else by NT's range locks
// in the same place, which other agents see.
#pragma once

#include "agent/fuse/LockOwners.h"
#include "agent/fuse/RemoteCalls.h"

namespace fodr::agent {

// Sets what the owner holds of the range, without waiting: STATUS_LOCK_NOT_GRANTED where others are in the
// way. The caller is in the owner's gate. What is granted is noted with the owner.
Task<nt::NTSTATUS> SetHostLock(LockOwnerPtr owner, OpenFilePtr handle, LockWish wish);
// Waits on the host, which has to know advisory locks, for what isn't free. STATUS_CANCELLED: EndHostWaits
// came.
Task<nt::NTSTATUS> AwaitHostLock(OpenFilePtr handle, LockWish wish);
void EndHostWaits(const OpenFilePtr &handle);

struct LockFound {
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    std::optional<LockedRange> range; // none: nothing is in the way
};
Task<LockFound> QueryHostLock(OpenFilePtr handle, LockWish wish);

} // namespace fodr::agent
