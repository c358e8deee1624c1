#include "agent/fuse/LockOwners.h"

#include <algorithm>

namespace fodr::agent {

LockRanges::Neighbours NeighboursOf(const OpenFilePtr &handle)
{
    const bool joins = !handle || handle->share->Has(nt::FODR_HOST_ADVISORY_LOCKS);
    return joins ? LockRanges::Neighbours::Join : LockRanges::Neighbours::Stay;
}

void LockOwner::SetHandle(OpenFilePtr file)
{
    const MutexLock held(lock);
    handle.swap(file); // the former one goes outside the lock
}

OpenFilePtr LockOwner::Handle() const
{
    const MutexLock held(lock);
    return handle;
}

bool LockOwner::IsLost() const
{
    const OpenFilePtr file = Handle();
    return file && file->share->IsLost(file->fileId);
}

void LockOwner::Note(const LockWish &wish)
{
    const MutexLock held(lock);
    if (wish.whole)
        whole = wish.exclusive;
    else
        bytes.Set(wish.begin, wish.end, wish.exclusive, NeighboursOf(handle));
    if (wish.exclusive)
        process = wish.process;
}

LockRanges LockOwner::Bytes() const
{
    const MutexLock held(lock);
    return bytes;
}

std::optional<bool> LockOwner::Whole() const
{
    const MutexLock held(lock);
    return whole;
}

bool LockOwner::HoldsNothing() const
{
    const MutexLock held(lock);
    return bytes.IsEmpty() && !whole;
}

bool LockOwner::Covers(const LockWish &wish) const
{
    const MutexLock held(lock);
    if (wish.whole)
        return whole.has_value();
    uint64_t next = wish.begin;
    for (const LockedRange &range : bytes.Within(wish.begin, wish.end))
        next = range.begin == next ? range.end : next;
    return next == wish.end;
}

std::optional<LockedRange> LockOwner::InTheWayOf(const LockWish &wish) const
{
    const MutexLock held(lock);
    for (const LockedRange &range : bytes.All()) {
        const bool overlaps = range.begin < wish.end && wish.begin < range.end;
        if (overlaps && (range.exclusive || wish.exclusive.value_or(false)))
            return range;
    }
    return std::nullopt;
}

int LockOwner::Process() const
{
    const MutexLock held(lock);
    return process;
}

LockOwnerPtr LockOwners::Enter(const NodePtr &node, uint64_t owner, bool make)
{
    if (count == 0 && !make)
        return nullptr;
    const MutexLock held(lock);
    if (!make && !owners.contains(node.get()))
        return nullptr;
    std::vector<LockOwnerPtr> &ofNode = owners[node.get()];
    auto found = std::ranges::find(ofNode, owner, &LockOwner::id);
    if (found == ofNode.end()) {
        if (!make)
            return nullptr;
        ofNode.push_back(std::make_shared<LockOwner>(node, owner));
        found = ofNode.end() - 1;
        ++count;
    }
    ++(*found)->calls;
    return *found;
}

void LockOwners::NoteThrough(const LockOwnerPtr &owner, const OpenFilePtr &file)
{
    const MutexLock held(lock);
    owner->throughSeveral |= owner->through && owner->through != file.get();
    owner->through = file.get();
}

void LockOwners::Leave(const LockOwnerPtr &owner)
{
    const MutexLock held(lock);
    if (--owner->calls != 0 || owner->Handle())
        return;
    const auto ofNode = owners.find(owner->node.get());
    if (ofNode == owners.end())
        return;
    count -= std::erase(ofNode->second, owner);
    if (ofNode->second.empty())
        owners.erase(ofNode);
}

LockOwnerPtr LockOwners::Find(const NodePtr &node, uint64_t owner) const
{
    for (const LockOwnerPtr &one : Of(node)) {
        if (one->id == owner)
            return one;
    }
    return nullptr;
}

std::vector<LockOwnerPtr> LockOwners::Of(const NodePtr &node) const
{
    if (count == 0)
        return {};
    const MutexLock held(lock);
    const auto ofNode = owners.find(node.get());
    return ofNode == owners.end() ? std::vector<LockOwnerPtr>{} : ofNode->second;
}

std::vector<LockOwnerPtr> LockOwners::OnlyThrough(const OpenFilePtr &file) const
{
    std::vector<LockOwnerPtr> found = Of(file->node);
    const MutexLock held(lock);
    std::erase_if(found, [&](const LockOwnerPtr &owner) {
        return owner->through != file.get() || owner->throughSeveral;
    });
    return found;
}

bool LockOwners::CameThrough(const LockOwnerPtr &owner, const OpenFilePtr &file) const
{
    const MutexLock held(lock);
    return owner->throughSeveral || owner->through == file.get();
}

void LockOwners::Clear()
{
    decltype(owners) ended; // handles are closed outside the lock
    const MutexLock held(lock);
    ended.swap(owners);
    count = 0;
}

} // namespace fodr::agent
