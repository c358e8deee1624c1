#include "agent/fuse/DirectoryCache.h"

#include "agent/IoResult.h"
#include "agent/fuse/PosixMapping.h"
#include "platform/Nt.h"

#include <algorithm>

namespace fodr::agent {
namespace {

constexpr uint32_t kWatched = nt::FILE_NOTIFY_CHANGE_FILE_NAME | nt::FILE_NOTIFY_CHANGE_DIR_NAME |
                              nt::FILE_NOTIFY_CHANGE_ATTRIBUTES | nt::FILE_NOTIFY_CHANGE_SIZE |
                              nt::FILE_NOTIFY_CHANGE_LAST_WRITE | nt::FILE_NOTIFY_CHANGE_CREATION;

// A change that comes before the other side has begun to watch isn't told. How long that takes isn't known.
constexpr auto kUntilWatched = std::chrono::milliseconds(100);

// The handle is good all the same.
bool SaysUnwatchable(nt::NTSTATUS status)
{
    return status == nt::STATUS_INSUFFICIENT_RESOURCES || status == nt::STATUS_NOT_SUPPORTED ||
           status == nt::STATUS_NOT_IMPLEMENTED || status == nt::STATUS_INVALID_DEVICE_REQUEST ||
           status == nt::STATUS_ACCESS_DENIED;
}

} // namespace

DirectoryHandle::~DirectoryHandle()
{
    node->opens.BeginClose();
    share->Close(fileId, [directory = node, until = std::move(kept)](const IoResult &) {
        directory->opens.EndClose();
    });
}

void DirectoryHandle::WhenChecked(InlineFunction<void(nt::NTSTATUS)> function)
{
    nt::NTSTATUS outcome;
    {
        const MutexLock held(lock);
        if (!checked) {
            waiting.push_back(std::move(function));
            return;
        }
        outcome = *checked;
    }
    function(outcome);
}

void DirectoryHandle::NoteChecked(nt::NTSTATUS outcome)
{
    std::vector<InlineFunction<void(nt::NTSTATUS)>> ready;
    {
        const MutexLock held(lock);
        checked = outcome;
        ready.swap(waiting);
    }
    for (InlineFunction<void(nt::NTSTATUS)> &function : ready)
        function(outcome);
}

DirectoryCache::Slots::iterator DirectoryCache::FindSlot(const NodePtr &node)
{
    return std::find_if(slots.begin(), slots.end(), [&](const Slot &slot) { return slot.node == node; });
}

void DirectoryCache::EvictOne(std::vector<DirectoryHandlePtr> *evicted, std::vector<NodePtr> *left)
{
    for (auto slot = slots.end(); slot != slots.begin();) {
        --slot;
        if (!slot->handle)
            continue;
        slot->node->SetUnwatched();
        evicted->push_back(std::move(slot->handle));
        left->push_back(slot->node);
        slots.erase(slot);
        return;
    }
}

void DirectoryCache::Acquire(const NodePtr &directory, Handler handler)
{
    NodeTable::Place place;
    if (!table.PlaceOf(directory, &place))
        return handler(nt::STATUS_OBJECT_PATH_NOT_FOUND, nullptr);
    DirectoryHandlePtr present;
    std::vector<DirectoryHandlePtr> evicted; // closed outside the lock
    std::vector<NodePtr> left;
    uint64_t serial = 0;
    {
        const MutexLock held(lock);
        auto slot = FindSlot(directory);
        if (slot == slots.end()) {
            if (slots.size() >= kCapacity)
                EvictOne(&evicted, &left);
            serial = ++lastSerial;
            slots.push_front({.node = directory, .handle = nullptr, .waiters = {}, .serial = serial});
            slots.front().waiters.push_back(std::move(handler));
        } else {
            slots.splice(slots.begin(), slots, slot);
            present = slot->handle;
            if (!present)
                slot->waiters.push_back(std::move(handler));
        }
    }
    for (const NodePtr &node : left)
        leaveHook(node);
    if (present)
        return handler(nt::STATUS_SUCCESS, present);
    if (serial == 0)
        return;
    const RemoteShare::CreateCall call = {.desiredAccess = nt::FILE_LIST_DIRECTORY |
                                                           nt::FILE_READ_ATTRIBUTES | nt::SYNCHRONIZE,
                                          .createDisposition = nt::FILE_OPEN,
                                          .createOptions = nt::FILE_DIRECTORY_FILE};
    place.share->Create(call, place.path,
                        [this, directory, serial, share = place.share](const IoResult &result) {
                            OnOpened(directory, serial, share, result);
                        });
}

void DirectoryCache::OnOpened(const NodePtr &node, uint64_t serial, const std::shared_ptr<RemoteShare> &share,
                              const IoResult &result)
{
    DirectoryHandlePtr handle;
    if (!result.Failed())
        handle = std::make_shared<DirectoryHandle>(node, share, result.fileId);
    std::vector<Handler> waiters;
    std::shared_ptr<void> ending; // let go outside the lock
    bool kept = false;
    {
        const MutexLock held(lock);
        auto slot = FindSlot(node);
        // It may have been dropped meanwhile, and opened anew.
        if (slot != slots.end() && slot->serial == serial) {
            waiters.swap(slot->waiters);
            ending = std::move(slot->ending);
            kept = handle && !ending;
            slot->handle = handle;
            if (!kept)
                slots.erase(slot);
        }
    }
    if (kept) {
        Check(node, handle);
        Watch(node, handle, Node::Clock::now() + kUntilWatched);
        watchHook(node);
    } else if (handle) {
        Check(node, handle);
    }
    if (!kept && handle && ending)
        handle->KeepUntilClosed(std::move(ending));
    for (Handler &waiter : waiters)
        waiter(result.status, handle);
}

// The path may lead to another folder by now.
void DirectoryCache::Check(const NodePtr &node, const DirectoryHandlePtr &handle)
{
    if (!handle->Share().HasIds())
        return handle->NoteChecked(nt::STATUS_SUCCESS);
    handle->Share().QueryInformation(
        handle->FileId(), handle->Share().FactsClass(), [this, node, handle](const IoResult &result) {
            FileFacts facts;
            nt::NTSTATUS status = handle->Share().TakeFacts(result, &facts);
            if (!nt::IsError(status)) {
                const uint64_t known = table.FileIdOf(node);
                if (known != 0 && known != facts.id && table.ShareRootOf(node) != node)
                    status = nt::STATUS_OBJECT_PATH_NOT_FOUND;
                else if (known != facts.id)
                    table.SetFileId(node, facts.id);
            } else if (!SaysStaleHandle(status) && status != STATUS_IO_TIMEOUT) {
                status = nt::STATUS_OBJECT_PATH_NOT_FOUND;
            }
            if (nt::IsError(status))
                DropHandle(node, handle);
            handle->NoteChecked(status);
        });
}

// One notification after the other, for as long as the handle lives: the close ends the last one.
void DirectoryCache::Watch(const NodePtr &node, const DirectoryHandlePtr &handle,
                           Node::Clock::time_point from)
{
    {
        // Of a handle that isn't kept any more nobody would tell when it goes.
        const MutexLock held(lock);
        auto slot = FindSlot(node);
        if (slot == slots.end() || slot->handle != handle)
            return;
        node->SetWatchedFrom(from);
    }
    handle->Share().NotifyChange(
        handle->FileId(), kWatched, false,
        [this, node, weak = std::weak_ptr<DirectoryHandle>(handle)](const IoResult &result) {
            if (result.status == nt::STATUS_NOTIFY_CLEANUP)
                return;
            const DirectoryHandlePtr alive = weak.lock();
            if (!alive)
                return;
            if (SaysUnwatchable(result.status)) {
                node->SetUnwatched();
                return;
            }
            if (!table.Find(node->id)) // the kernel has forgotten it: nobody there is to be told
                return DropHandle(node, alive);
            node->NoteNotice();
            alive->Names().Forget(RecentNames::Clock::now());
            if (result.Failed()) { // the folder is gone, or the handle
                DropHandle(node, alive);
                changeHook(node, {});
                return;
            }
            node->SetUnwatched();
            changeHook(node, [this, node, weak] {
                if (const DirectoryHandlePtr still = weak.lock())
                    Watch(node, still, Node::Clock::now());
            });
        });
}

DirectoryHandlePtr DirectoryCache::Present(const NodePtr &directory)
{
    const MutexLock held(lock);
    auto slot = FindSlot(directory);
    return slot == slots.end() ? nullptr : slot->handle;
}

void DirectoryCache::DropHandle(const NodePtr &node, const DirectoryHandlePtr &handle)
{
    DirectoryHandlePtr dropped;
    {
        const MutexLock held(lock);
        auto slot = FindSlot(node);
        if (slot == slots.end() || slot->handle != handle)
            return;
        node->SetUnwatched();
        dropped = std::move(slot->handle);
        slots.erase(slot);
    }
    leaveHook(node);
}

void DirectoryCache::ForgetNames(const NodePtr &directory)
{
    const DirectoryHandlePtr handle = Present(directory);
    if (handle)
        handle->Names().Forget(RecentNames::Clock::now());
}

void DirectoryCache::Drop(const NodePtr &directory)
{
    if (const DirectoryHandlePtr handle = Present(directory))
        DropHandle(directory, handle);
}

void DirectoryCache::DropBelow(const NodePtr &directory, InlineFunction<void()> closed)
{
    // Calls when the last handle has let it go.
    struct Barrier {
        ~Barrier() { done(); }
        InlineFunction<void()> done;
    };
    auto barrier = std::make_shared<Barrier>();
    barrier->done = std::move(closed);
    std::vector<DirectoryHandlePtr> dropped;
    std::vector<NodePtr> left;
    {
        const MutexLock held(lock);
        for (auto slot = slots.begin(); slot != slots.end();) {
            if (!table.IsBelow(slot->node, directory)) {
                ++slot;
                continue;
            }
            if (!slot->handle) {
                slot->ending = std::make_shared<std::pair<std::shared_ptr<void>, std::shared_ptr<void>>>(
                    std::move(slot->ending), barrier);
                ++slot;
                continue;
            }
            slot->node->SetUnwatched();
            slot->handle->KeepUntilClosed(barrier);
            left.push_back(slot->node);
            dropped.push_back(std::move(slot->handle));
            slot = slots.erase(slot);
        }
    }
    for (const NodePtr &node : left)
        leaveHook(node);
}

void DirectoryCache::Clear()
{
    std::vector<DirectoryHandlePtr> dropped;
    const MutexLock held(lock);
    for (auto slot = slots.begin(); slot != slots.end();) {
        // One that is being opened has callers who wait for it.
        if (!slot->handle) {
            ++slot;
            continue;
        }
        dropped.push_back(std::move(slot->handle));
        slot = slots.erase(slot);
    }
}

} // namespace fodr::agent
