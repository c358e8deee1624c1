#include "agent/fuse/LockOwners.h"

#include "agent/IoResult.h"
#include "rdpdr/wire/RdpdrConstants.h"

#include <algorithm>

namespace fodr::agent {

LockRanges::Neighbours NeighboursOf(const RemoteFilePtr &handle)
{
    const bool joins = !handle || handle->share->Has(nt::FODR_HOST_ADVISORY_LOCKS);
    return joins ? LockRanges::Neighbours::Join : LockRanges::Neighbours::Stay;
}

void LockOwner::SetHandle(RemoteFilePtr file)
{
    const MutexLock held(lock);
    handle.swap(file); // the former one goes outside the lock
}

RemoteFilePtr LockOwner::Handle() const
{
    const MutexLock held(lock);
    return handle;
}

bool LockOwner::IsLost() const
{
    const RemoteFilePtr file = Handle();
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

void LockOwners::Claim(const LockOwnerPtr &owner, const RemoteFilePtr &file, const LockWish &wish)
{
    const MutexLock held(lock);
    std::vector<LockOwner::Claim> &claims = owner->claims;
    for (LockOwner::Claim &claim : claims) {
        if (wish.whole)
            claim.whole = false;
        else
            claim.bytes.Set(wish.begin, wish.end, std::nullopt);
    }
    auto own = std::ranges::find(claims, file.get(), &LockOwner::Claim::file);
    if (own == claims.end())
        own = claims.insert(own, {.file = file.get()});
    if (wish.whole)
        own->whole = true;
    else
        own->bytes.Set(wish.begin, wish.end, true);
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

std::vector<LockOwnerPtr> LockOwners::Through(const RemoteFilePtr &file) const
{
    std::vector<LockOwnerPtr> found = Of(file->node);
    const MutexLock held(lock);
    std::erase_if(found, [&](const LockOwnerPtr &owner) {
        return std::ranges::find(owner->claims, file.get(), &LockOwner::Claim::file) == owner->claims.end();
    });
    return found;
}

LockOwners::Left LockOwners::LeaveFile(const LockOwnerPtr &owner, const RemoteFilePtr &file)
{
    Left left;
    const MutexLock held(lock);
    const auto claim = std::ranges::find(owner->claims, file.get(), &LockOwner::Claim::file);
    if (claim == owner->claims.end())
        return left;
    for (const LockedRange &range : claim->bytes.All())
        left.locks.push_back({.owner = owner->id, .begin = range.begin, .end = range.end});
    if (claim->whole)
        left.locks.push_back({.owner = owner->id, .whole = true});
    owner->claims.erase(claim);
    left.all = owner->claims.empty();
    return left;
}

void LockOwners::Clear()
{
    decltype(owners) ended; // handles are closed outside the lock
    const MutexLock held(lock);
    ended.swap(owners);
    count = 0;
}

namespace {

// One of NT's locks.
struct Piece {
    RDP_LOCK_INFO place;
    bool exclusive;
    bool operator==(const Piece &other) const
    {
        return place.Offset == other.place.Offset && place.Length == other.place.Length &&
               exclusive == other.exclusive;
    }
};

RDP_LOCK_INFO PlaceOfBytes(uint64_t begin, uint64_t end)
{
    return {.Length = end - begin, .Offset = nt::FODR_LOCKS_BASE + begin};
}

RDP_LOCK_INFO PlaceOf(const LockWish &wish)
{
    return wish.whole ? RDP_LOCK_INFO{.Length = 1, .Offset = nt::FODR_LOCK_WHOLE}
                      : PlaceOfBytes(wish.begin, wish.end);
}

uint32_t OperationOf(std::optional<bool> exclusive)
{
    if (!exclusive)
        return RDP_LOWIO_OP_UNLOCK;
    return *exclusive ? RDP_LOWIO_OP_EXCLUSIVELOCK : RDP_LOWIO_OP_SHAREDLOCK;
}

auto Ask(const RemoteFilePtr &handle, std::optional<bool> exclusive, bool waits, const RDP_LOCK_INFO &place)
{
    return handle->share->Lock(handle->fileId, OperationOf(exclusive), !waits, {&place, 1});
}

std::vector<Piece> PiecesOf(const LockRanges &bytes, std::optional<bool> whole)
{
    std::vector<Piece> pieces;
    for (const LockedRange &range : bytes.All())
        pieces.push_back({PlaceOfBytes(range.begin, range.end), range.exclusive});
    if (whole)
        pieces.push_back({{.Length = 1, .Offset = nt::FODR_LOCK_WHOLE}, *whole});
    return pieces;
}

std::vector<Piece> Without(std::vector<Piece> pieces, const std::vector<Piece> &others)
{
    std::erase_if(pieces,
                  [&](const Piece &piece) { return std::ranges::find(others, piece) != others.end(); });
    return pieces;
}

// How many were locked, and why no more.
struct Locked {
    size_t count = 0;
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
};

Task<Locked> LockPieces(RemoteFilePtr handle, std::vector<Piece> pieces)
{
    Locked locked;
    for (const Piece &piece : pieces) {
        locked.status = co_await Ask(handle, piece.exclusive, false, piece.place);
        if (nt::IsError(locked.status))
            break;
        ++locked.count;
    }
    if (locked.status == nt::STATUS_FILE_LOCK_CONFLICT)
        locked.status = nt::STATUS_LOCK_NOT_GRANTED;
    co_return locked;
}

Task<bool> UnlockPieces(RemoteFilePtr handle, std::vector<Piece> pieces, size_t count)
{
    bool all = true;
    for (size_t i = 0; i < count; ++i) {
        const nt::NTSTATUS status = co_await Ask(handle, std::nullopt, false, pieces[i].place);
        all = all && !nt::IsError(status);
    }
    co_return all;
}

// Gives up the pieces that go and takes those that come; when one is refused, all is as it was. A shared lock
// is granted over one's own, so it comes first. For an exclusive one the others go first, and somebody may
// come in between: the owner has lost what it held then.
Task<nt::NTSTATUS> Exchange(RemoteFilePtr handle, std::vector<Piece> going, std::vector<Piece> coming)
{
    std::vector<Piece> shared = coming, exclusive = coming;
    std::erase_if(shared, [](const Piece &piece) { return piece.exclusive; });
    std::erase_if(exclusive, [](const Piece &piece) { return !piece.exclusive; });
    const Locked first = co_await LockPieces(handle, shared);
    if (nt::IsError(first.status)) {
        co_await UnlockPieces(handle, shared, first.count);
        co_return first.status;
    }
    if (!co_await UnlockPieces(handle, going, going.size()))
        co_return STATUS_FILE_INVALID;
    const Locked second = co_await LockPieces(handle, exclusive);
    if (!nt::IsError(second.status))
        co_return second.status;
    co_await UnlockPieces(handle, exclusive, second.count);
    co_await UnlockPieces(handle, shared, shared.size());
    const Locked back = co_await LockPieces(handle, going);
    co_return nt::IsError(back.status) ? STATUS_FILE_INVALID : second.status;
}

} // namespace

Task<nt::NTSTATUS> SetHostLock(LockOwnerPtr owner, RemoteFilePtr handle, LockWish wish)
{
    nt::NTSTATUS status;
    if (handle->share->Has(nt::FODR_HOST_ADVISORY_LOCKS)) {
        const RDP_LOCK_INFO place = PlaceOf(wish);
        status = co_await Ask(handle, wish.exclusive, false, place);
        if (nt::IsError(status) && wish.whole) { // as flock: a change that is refused loses the lock
            LockWish lost = wish;
            lost.exclusive.reset();
            owner->Note(lost);
        }
    } else {
        LockRanges bytes = owner->Bytes();
        std::optional<bool> whole = owner->Whole();
        const std::vector<Piece> before = PiecesOf(bytes, whole);
        if (wish.whole)
            whole = wish.exclusive;
        else
            bytes.Set(wish.begin, wish.end, wish.exclusive, NeighboursOf(handle));
        const std::vector<Piece> after = PiecesOf(bytes, whole);
        status = co_await Exchange(handle, Without(before, after), Without(after, before));
    }
    if (!nt::IsError(status))
        owner->Note(wish);
    co_return status;
}

Task<nt::NTSTATUS> AwaitHostLock(RemoteFilePtr handle, LockWish wish)
{
    const RDP_LOCK_INFO place = PlaceOf(wish);
    co_return co_await Ask(handle, wish.exclusive, true, place);
}

void EndHostWaits(const RemoteFilePtr &handle)
{
    const RDP_LOCK_INFO waits = {.Length = 1, .Offset = nt::FODR_LOCK_WAITS};
    handle->share->Lock(handle->fileId, RDP_LOWIO_OP_UNLOCK, true, {&waits, 1}, [](const IoResult &) {});
}

Task<LockFound> QueryHostLock(RemoteFilePtr handle, LockWish wish)
{
    std::array<uint8_t, sizeof(nt::FODR_LOCK)> input{};
    StoreLittle(&input[offsetof(nt::FODR_LOCK, Offset)], wish.begin);
    StoreLittle(&input[offsetof(nt::FODR_LOCK, Length)], wish.end - wish.begin);
    StoreLittle(&input[offsetof(nt::FODR_LOCK, Type)],
                wish.exclusive.value_or(false) ? nt::FODR_LOCK_EXCLUSIVE : nt::FODR_LOCK_SHARED);
    const IoResult told = co_await handle->share->DeviceControl(handle->fileId, nt::FSCTL_FODR_QUERY_LOCK,
                                                                input, sizeof(nt::FODR_LOCK));
    LockFound found;
    found.status = told.status;
    if (told.Failed())
        co_return found;
    if (told.data.size() < sizeof(nt::FODR_LOCK)) {
        found.status = STATUS_INVALID_NETWORK_RESPONSE;
        co_return found;
    }
    const uint8_t *data = told.data.data();
    const auto type = LoadLittle<uint32_t>(data + offsetof(nt::FODR_LOCK, Type));
    const auto begin = LoadLittle<uint64_t>(data + offsetof(nt::FODR_LOCK, Offset));
    const auto length = LoadLittle<uint64_t>(data + offsetof(nt::FODR_LOCK, Length));
    const bool sane = begin < nt::FODR_LOCKS_SPAN && length != 0 && length <= nt::FODR_LOCKS_SPAN - begin;
    if (type != 0 && sane)
        found.range = LockedRange{begin, begin + length, type == nt::FODR_LOCK_EXCLUSIVE};
    else if (type != 0)
        found.status = STATUS_INVALID_NETWORK_RESPONSE;
    co_return found;
}

} // namespace fodr::agent
