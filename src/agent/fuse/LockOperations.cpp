#include "agent/IoResult.h"
#include "agent/fuse/Operations.h"
#include "agent/fuse/PosixMapping.h"
#include "platform/Nt.h"

#include <algorithm>
#include <cerrno>

namespace fodr::agent {
namespace {

// A host that doesn't know advisory locks is asked again and again.
constexpr std::chrono::milliseconds kFirstRetry{10};
constexpr std::chrono::milliseconds kLongestRetry{500};
// The end of a wait is asked for so often, every 200 ms; then the call ends without the host.
constexpr int kMostEndings = 10;

constexpr uint32_t kAnyAccess = nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE;

int ErrnoOfLocking(nt::NTSTATUS status)
{
    if (status == nt::STATUS_INSUFFICIENT_RESOURCES || status == nt::STATUS_TOO_MANY_OPENED_FILES)
        return ENOLCK;
    return status == STATUS_FILE_INVALID ? EIO : ErrnoOfStatus(status);
}

// A way through an owner's gate.
class OwnerHold {
public:
    explicit OwnerHold(LockOwnerPtr lockOwner) : owner(std::move(lockOwner)) {}
    ~OwnerHold()
    {
        if (owner)
            owner->gate.Leave(NameGate::Entry::Alone);
    }
    OwnerHold(OwnerHold &&) = default;
    OwnerHold &operator=(OwnerHold &&) = delete;

private:
    LockOwnerPtr owner;
};

Task<OwnerHold> EnterAlone(LockOwnerPtr owner)
{
    if (!owner->gate.TryEnter(NameGate::Entry::Alone))
        co_await AwaitCall(
            [&](InlineFunction<void()> done) { owner->gate.Enter(NameGate::Entry::Alone, std::move(done)); });
    co_return OwnerHold(owner);
}

} // namespace

// ---- Handles ----

Task<RemoteFilePtr> LockOperations::OpenByName(NodePtr node, Place place, uint32_t access,
                                               nt::NTSTATUS *status)
{
    const uint32_t links = mount.FollowsLinks(node, place) ? 0 : nt::FILE_OPEN_REPARSE_POINT;
    const RemoteShare::CreateCall open = {.desiredAccess = access,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_NON_DIRECTORY_FILE | links};
    const IoResult opened = co_await opener.OpenAt(place, open);
    *status = opened.status;
    if (opened.Failed())
        co_return nullptr;
    const RemoteFilePtr file = opener.NewOpen(node, place.share, opened.fileId, access);
    if (!place.share->HasIds())
        co_return file;
    FileFacts facts;
    *status = co_await place.share->QueryFacts(file->fileId, &facts);
    if (!nt::IsError(*status) && facts.id != mount.table.FileIdOf(node))
        *status = nt::STATUS_OBJECT_NAME_NOT_FOUND;
    co_return nt::IsError(*status) ? nullptr : file;
}

// Of a file without a name: the open's own handle, which serves one owner.
RemoteFilePtr LockOperations::ShareHandle(const RemoteFilePtr &file) const
{
    for (const LockOwnerPtr &other : owners.Of(file->node)) {
        const RemoteFilePtr handle = other->Handle();
        if (handle && handle->fileId == file->fileId)
            return nullptr;
    }
    const RemoteFilePtr shared = opener.NewOpen(file->node, file->share, file->fileId, file->access);
    shared->lender = file;
    shared->givenAway = true;
    return shared;
}

Task<RemoteFilePtr> LockOperations::OpenHandle(RemoteFilePtr file, nt::NTSTATUS *status)
{
    const NodePtr node = file->node;
    NodePtr parent;
    std::string name;
    Place place;
    if (mount.table.FileIdOf(node) == 0)
        co_await places.Identify(node);
    const bool named = mount.table.ParentAndNameOf(node, &parent, &name);
    if (named && !mount.table.PlaceOf(node, &place))
        co_await places.Confirm(parent);
    *status = nt::STATUS_OBJECT_NAME_NOT_FOUND;
    if (named && mount.table.PlaceOf(node, &place)) {
        const uint32_t own = kAnyAccess | (file->access & (nt::FILE_READ_DATA | nt::FILE_WRITE_DATA));
        // What this open can't lock, another open of the owner may want to.
        const uint32_t all =
            kAnyAccess | nt::FILE_READ_DATA | (place.share->Device().IsReadOnly() ? 0 : nt::FILE_WRITE_DATA);
        for (bool again = true; again;) {
            RemoteFilePtr handle = co_await OpenByName(node, place, all, status);
            if (!handle && !SaysAbsent(*status) && own != all)
                handle = co_await OpenByName(node, place, own, status);
            if (handle)
                co_return handle;
            again = SaysAbsent(*status) && co_await places.FindPlaceAgain(parent, name, &place);
        }
    }
    if (!SaysAbsent(*status))
        co_return nullptr;
    const RemoteFilePtr shared = ShareHandle(file);
    *status = shared ? nt::STATUS_SUCCESS : nt::STATUS_INSUFFICIENT_RESOURCES;
    co_return shared;
}

// With the handle all that the owner held goes. The caller is alone in the owner's gate.
Task<Nothing> LockOperations::DropAlone(LockOwnerPtr owner)
{
    const RemoteFilePtr handle = owner->Handle();
    if (!handle)
        co_return Nothing{};
    if (!owner->HoldsNothing())
        co_await AwaitWrites(owner->node->WritesIfAny());
    LockWish bytes = {.begin = 0, .end = nt::FODR_LOCKS_SPAN}, whole = {.whole = true};
    if (handle->lender) {
        co_await SetHostLock(owner, handle, bytes);
        co_await SetHostLock(owner, handle, whole);
    }
    // Noted first: a handle whose close is on its way counts as lost, and locks by it as missed.
    owner->Note(bytes);
    owner->Note(whole);
    owner->SetHandle(nullptr);
    if (!handle->lender) {
        owner->node->opens.BeginClose();
        handle->givenAway = true;
        co_await handle->share->Close(handle->fileId);
        owner->node->opens.EndClose();
    }
    co_return Nothing{};
}

Task<Nothing> LockOperations::Drop(LockOwnerPtr owner)
{
    const OwnerHold alone = co_await EnterAlone(owner);
    co_await DropAlone(owner);
    co_return Nothing{};
}

Task<Nothing> LockOperations::End(LockOwnerPtr owner)
{
    const GateHold alone = co_await PassGate(owner->node, NameGate::Entry::Alone);
    co_await Drop(owner);
    co_await LeaveSide(owner->node);
    co_return Nothing{};
}

Detached LockOperations::Closed(RemoteFilePtr file, uint64_t owner, Next next)
{
    {
        const LockCall entered(owners, file->node, owner, false);
        if (entered.Owner())
            co_await End(entered.Owner());
    }
    next(file);
}

// The open has ended, and with it what the owner locked through it.
Detached LockOperations::LeaveFile(LockOwnerPtr owner, RemoteFilePtr file)
{
    {
        const GateHold alone = co_await PassGate(owner->node, NameGate::Entry::Alone);
        {
            const OwnerHold ownerAlone = co_await EnterAlone(owner);
            const LockOwners::Left left = owners.LeaveFile(owner, file);
            const RemoteFilePtr handle = owner->Handle();
            if (left.all) {
                co_await DropAlone(owner);
            } else if (handle && !left.locks.empty()) {
                co_await AwaitWrites(owner->node->WritesIfAny());
                for (const LockWish &lock : left.locks)
                    co_await SetHostLock(owner, handle, lock);
            }
        }
        co_await LeaveSide(owner->node);
    }
    owners.Leave(owner);
}

void LockOperations::Released(const RemoteFilePtr &file)
{
    for (const LockOwnerPtr &owner : owners.Through(file)) {
        if (const LockOwnerPtr entered = owners.Enter(file->node, owner->id, false))
            LeaveFile(entered, file);
    }
}

bool LockOperations::AreLost(const RemoteFilePtr &file) const
{
    const auto isLost = [](const LockOwnerPtr &owner) { return !owner->HoldsNothing() && owner->IsLost(); };
    const LockOwnerPtr side = owners.Find(file->node, LockOwners::kSide);
    return (side && isLost(side)) || std::ranges::any_of(owners.Through(file), isLost);
}

// ---- Locking ----

// Who has a lock sees what others did before they gave theirs up: of the file, and of those beside it.
Task<Nothing> LockOperations::SeeOthersChanges(NodePtr node)
{
    node->Writes(mount.writeWindow)->DataChanged();
    node->DropFactsOfOpen();
    NodePtr parent;
    std::string name;
    if (mount.table.ParentAndNameOf(node, &parent, &name))
        mount.directories.ForgetNames(parent);
    mount.notifier.DataChanged(node->id);
    co_await AwaitCall([&](InlineFunction<void()> done) {
        mount.notifier.CallAt(KernelNotifier::Clock::now(), std::move(done)); // after the notice
    });
    co_return Nothing{};
}

// Tries to take it; what was held of the range before is replaced.
Task<nt::NTSTATUS> LockOperations::TryLock(LockOwnerPtr owner, RemoteFilePtr file, LockWish wish)
{
    std::optional<GateHold> aloneHere;
    const bool shared = !wish.whole && IsSharedMemory(file->node);
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    if (shared) {
        aloneHere.emplace(co_await PassGate(file->node, NameGate::Entry::Alone));
        status = co_await TakeSide(file);
        if (nt::IsError(status))
            co_return status;
    }
    {
        const OwnerHold alone = co_await EnterAlone(owner);
        RemoteFilePtr handle = owner->Handle();
        if (handle && owner->IsLost() && !owner->HoldsNothing())
            co_return STATUS_FILE_INVALID;
        if (!handle || owner->IsLost()) {
            handle = co_await OpenHandle(file, &status);
            owner->SetHandle(handle);
        }
        if (handle)
            status = co_await SetHostLock(owner, handle, wish);
    }
    if (shared && nt::IsError(status))
        co_await LeaveSide(file->node);
    co_return status;
}

Task<nt::NTSTATUS> LockOperations::WaitForLock(FuseCall::Ptr call, LockOwnerPtr owner, RemoteFilePtr file,
                                               LockWish wish)
{
    const RemoteFilePtr handle = owner->Handle();
    const auto endings = std::make_shared<std::atomic<int>>(0);
    // With shared memory two locks are taken: no wait for one of them does.
    const bool onHost = handle && handle->share->Has(nt::FODR_HOST_ADVISORY_LOCKS) &&
                        (wish.whole || !IsSharedMemory(file->node));
    call->SetInterrupt([endings, handle, onHost](FuseCall &waiting) {
        if (++*endings > kMostEndings)
            waiting.Fail(EINTR);
        else if (onHost)
            EndHostWaits(handle);
    });
    auto retry = kFirstRetry;
    for (;;) {
        nt::NTSTATUS status;
        if (onHost) {
            status = co_await AwaitHostLock(handle, wish);
            if (!nt::IsError(status))
                owner->Note(wish);
        } else {
            co_await AwaitCall([&](InlineFunction<void()> done) {
                mount.notifier.CallAt(KernelNotifier::Clock::now() + retry, std::move(done));
            });
            retry = std::min(2 * retry, kLongestRetry);
            status = *endings != 0 ? nt::STATUS_CANCELLED : co_await TryLock(owner, file, wish);
        }
        if (status != nt::STATUS_LOCK_NOT_GRANTED && status != nt::STATUS_CANCELLED)
            co_return status;
        if (*endings != 0)
            co_return nt::STATUS_CANCELLED;
    }
}

Task<nt::NTSTATUS> LockOperations::Unlock(LockOwnerPtr owner, LockWish wish)
{
    co_await AwaitWrites(owner->node->WritesIfAny());
    nt::NTSTATUS status = nt::STATUS_SUCCESS;
    std::optional<GateHold> aloneHere;
    const bool shared = !wish.whole && IsSharedMemory(owner->node);
    if (shared)
        aloneHere.emplace(co_await PassGate(owner->node, NameGate::Entry::Alone));
    {
        const OwnerHold alone = co_await EnterAlone(owner);
        const RemoteFilePtr handle = owner->Handle();
        if (owner->IsLost()) // what is given up can't be missed
            owner->Note(wish);
        else if (handle)
            status = co_await SetHostLock(owner, handle, wish);
    }
    if (shared)
        co_await LeaveSide(owner->node);
    co_return status;
}

// Gives up what was granted, and takes again what was held before.
Task<Nothing> LockOperations::Restore(LockOwnerPtr owner, LockWish wish, LockRanges before)
{
    wish.exclusive.reset();
    co_await Unlock(owner, wish);
    if (wish.whole)
        co_return Nothing{};
    const OwnerHold alone = co_await EnterAlone(owner);
    const RemoteFilePtr handle = owner->Handle();
    for (const LockedRange &range : before.Within(wish.begin, wish.end)) {
        wish.begin = range.begin;
        wish.end = range.end;
        wish.exclusive = range.exclusive;
        if (handle)
            co_await SetHostLock(owner, handle, wish);
    }
    co_return Nothing{};
}

Detached LockOperations::SetLock(FuseCall::Ptr call, RemoteFilePtr file, LockWish wish, bool waits)
{
    const LockCall entered(owners, file->node, wish.owner, true);
    const LockOwnerPtr owner = entered.Owner();
    const bool shared = !wish.whole && IsSharedMemory(file->node);
    if (shared)
        wish = Shifted(wish);
    nt::NTSTATUS status;
    if (!wish.exclusive) {
        status = co_await Unlock(owner, wish);
        call->Fail(ErrnoOfLocking(status));
        co_return;
    }
    owners.Claim(owner, file, wish);
    const LockRanges before = owner->Bytes();
    const bool covered = owner->Covers(wish);
    status = co_await TryLock(owner, file, wish);
    if (status == nt::STATUS_LOCK_NOT_GRANTED && waits)
        status = co_await WaitForLock(call, owner, file, wish);
    if (!nt::IsError(status) && !covered && !shared)
        co_await SeeOthersChanges(file->node);
    const bool told = call->Fail(ErrnoOfLocking(status));
    if (!nt::IsError(status) && !told) // the caller has gone
        co_await Restore(owner, wish, before);
}

Task<LockFound> LockOperations::TryForAMoment(LockOwnerPtr owner, RemoteFilePtr file, LockWish wish)
{
    const LockRanges before = owner->Bytes();
    LockFound found;
    found.status = co_await TryLock(owner, file, wish);
    if (found.status == nt::STATUS_LOCK_NOT_GRANTED)
        found = {.status = nt::STATUS_SUCCESS, .range = LockedRange{wish.begin, wish.end, true}};
    else if (!nt::IsError(found.status))
        co_await Restore(owner, wish, before);
    co_return found;
}

Detached LockOperations::GetLock(FuseCall::Ptr call, RemoteFilePtr file, LockWish wish)
{
    const LockCall entered(owners, file->node, wish.owner, true);
    const LockOwnerPtr owner = entered.Owner();
    const bool shared = IsSharedMemory(file->node);
    if (shared)
        wish = Shifted(wish);
    // What is in the way within the mount is known here, with the process that has it.
    LockFound found;
    int process = 0;
    for (const LockOwnerPtr &other : owners.Of(file->node)) {
        if (other == owner || found.range)
            continue;
        found.range = other->InTheWayOf(wish);
        process = found.range ? other->Process() : 0;
    }
    const RemoteFilePtr own = owner->Handle();
    if (found.range)
        found.status = nt::STATUS_SUCCESS;
    else if (shared)
        found = co_await QuerySide(own && !owner->IsLost() ? own : file, wish);
    else if (file->share->Has(nt::FODR_HOST_ADVISORY_LOCKS))
        found = co_await QueryHostLock(own && !owner->IsLost() ? own : file, wish);
    else
        found = co_await TryForAMoment(owner, file, wish);
    if (nt::IsError(found.status))
        call->Fail(ErrnoOfLocking(found.status));
    else
        call->Lock(shared ? Unshifted(found.range) : found.range, process);
}

} // namespace fodr::agent
