// LockOperations: files that programs map as their shared memory, as databases do beside their log. Memory
// can't be shared between machines. So this mount has such a file for itself while any program here locks a
// part of it: an exclusive lock of all real bytes keeps other machines out, and the programs' own locks,
// which are to exclude each other alone, are taken in another place.
#include "agent/IoResult.h"
#include "agent/fuse/Operations.h"
#include "platform/Nt.h"

#include <algorithm>

namespace fodr::agent {
namespace {

constexpr std::string_view kSharedMemoryEnd = "-shm";
constexpr uint64_t kShift = nt::FODR_LOCKS_SPAN / 2;
constexpr LockWish kAllRealBytes = {
    .owner = LockOwners::kSide, .process = 0, .whole = false, .begin = 0, .end = kShift, .exclusive = true};

} // namespace

bool LockOperations::IsSharedMemory(const NodePtr &node) const
{
    NodePtr parent;
    std::string name;
    const bool found =
        mount.table.ParentAndNameOf(node, &parent, &name) || mount.table.FormerPlaceOf(node, &parent, &name);
    return found && name.ends_with(kSharedMemoryEnd);
}

LockWish LockOperations::Shifted(const LockWish &wish)
{
    LockWish shifted = wish;
    shifted.begin = std::min(wish.begin, kShift - 1) + kShift;
    shifted.end = std::min(wish.end, kShift) + kShift;
    return shifted;
}

// The caller is alone in the node's gate until its own lock is noted, or wasn't granted.
Task<nt::NTSTATUS> LockOperations::TakeSide(RemoteFilePtr file)
{
    const LockCall entered(owners, file->node, LockOwners::kSide, true);
    const LockOwnerPtr side = entered.Owner();
    // What is mapped by who has lost its locks may still be written.
    for (const LockOwnerPtr &other : owners.Of(file->node)) {
        if (other != side && other->IsLost() && !other->HoldsNothing())
            co_return STATUS_FILE_INVALID;
    }
    if (side->IsLost())
        co_await Drop(side);
    if (side->Covers(kAllRealBytes))
        co_return nt::STATUS_SUCCESS;
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    const RemoteFilePtr handle = co_await OpenHandle(file, &status);
    if (!handle)
        co_return status;
    side->SetHandle(handle);
    status = co_await SetHostLock(side, handle, kAllRealBytes);
    if (nt::IsError(status))
        co_await Drop(side);
    else
        co_await SeeOthersChanges(file->node);
    co_return status;
}

// Once nobody here holds a lock of the file; what was written to the mapped bytes goes before.
Task<Nothing> LockOperations::LeaveSide(NodePtr node)
{
    const LockCall entered(owners, node, LockOwners::kSide, false);
    const LockOwnerPtr side = entered.Owner();
    if (!side)
        co_return Nothing{};
    for (const LockOwnerPtr &other : owners.Of(node)) {
        if (other != side && !other->HoldsNothing())
            co_return Nothing{};
    }
    if (!side->IsLost())
        co_await SeeOthersChanges(node);
    co_await Drop(side);
    co_return Nothing{};
}

// Whether another machine has the file.
Task<LockFound> LockOperations::QuerySide(RemoteFilePtr file, LockWish wish)
{
    const GateHold alone = co_await PassGate(file->node, NameGate::Entry::Alone);
    LockFound found;
    const LockOwnerPtr side = owners.Find(file->node, LockOwners::kSide);
    const bool known = file->share->Has(nt::FODR_HOST_ADVISORY_LOCKS);
    if (side && !side->IsLost() && side->Covers(kAllRealBytes)) {
        if (known)
            found = co_await QueryHostLock(file, wish);
        co_return found; // in this mount nobody holds it
    }
    if (known) {
        found = co_await QueryHostLock(file, kAllRealBytes);
    } else {
        found.status = co_await TakeSide(file);
        co_await LeaveSide(file->node);
        if (found.status == nt::STATUS_LOCK_NOT_GRANTED)
            found = {.status = nt::STATUS_SUCCESS, .range = LockedRange{0, kShift, true}};
    }
    if (found.range)
        found.range = LockedRange{wish.begin, wish.end, true};
    co_return found;
}

std::optional<LockedRange> LockOperations::Unshifted(std::optional<LockedRange> range)
{
    if (range) {
        range->begin -= std::min(range->begin, kShift);
        range->end -= std::min(range->end, kShift);
    }
    return range;
}

} // namespace fodr::agent
