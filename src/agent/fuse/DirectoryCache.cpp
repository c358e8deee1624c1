#include "agent/fuse/DirectoryCache.h"

#include "agent/AgentStatus.h"
#include "platform/Nt.h"

#include <algorithm>

namespace fodr::agent {
namespace {

using transport::MutexLock;

constexpr uint32_t kWatched = nt::FILE_NOTIFY_CHANGE_FILE_NAME | nt::FILE_NOTIFY_CHANGE_DIR_NAME |
                              nt::FILE_NOTIFY_CHANGE_ATTRIBUTES | nt::FILE_NOTIFY_CHANGE_SIZE |
                              nt::FILE_NOTIFY_CHANGE_LAST_WRITE | nt::FILE_NOTIFY_CHANGE_CREATION;

} // namespace

DirectoryHandle::~DirectoryHandle()
{
    node->opens.BeginClose();
    share->Close(fileId, [directory = node, until = std::move(kept)](const IoResult &) {
        directory->opens.EndClose();
    });
}

DirectoryCache::Slots::iterator DirectoryCache::FindSlot(const NodePtr &node)
{
    return std::find_if(slots.begin(), slots.end(), [&](const Slot &slot) { return slot.node == node; });
}

void DirectoryCache::EvictOne(std::vector<DirectoryHandlePtr> *evicted)
{
    for (auto slot = slots.end(); slot != slots.begin();) {
        --slot;
        if (!slot->handle)
            continue;
        evicted->push_back(std::move(slot->handle));
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
    uint64_t serial = 0;
    {
        const MutexLock held(lock);
        auto slot = FindSlot(directory);
        if (slot == slots.end()) {
            if (slots.size() >= kCapacity)
                EvictOne(&evicted);
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
    if (kept)
        Watch(node, handle);
    else if (handle && ending)
        handle->KeepUntilClosed(std::move(ending));
    for (Handler &waiter : waiters)
        waiter(result.status, handle);
}

// One notification after the other, for as long as the handle lives: the close ends the last one.
void DirectoryCache::Watch(const NodePtr &node, const DirectoryHandlePtr &handle)
{
    handle->Share().NotifyChange(
        handle->FileId(), kWatched, false,
        [this, node, weak = std::weak_ptr<DirectoryHandle>(handle)](const IoResult &result) {
            if (result.status == STATUS_CONNECTION_DISCONNECTED)
                Drop(node); // the handle doesn't outlive its connection
            else if (!result.Failed() && result.status != nt::STATUS_NOTIFY_CLEANUP)
                OnChange(node, weak);
        });
}

void DirectoryCache::OnChange(const NodePtr &node, const std::weak_ptr<DirectoryHandle> &handle)
{
    const DirectoryHandlePtr alive = handle.lock();
    if (!alive)
        return;
    alive->Names().Forget(RecentNames::Clock::now());
    if (changeHook(node))
        Watch(node, alive);
    else
        laterHook([this, node, handle] { OnChange(node, handle); });
}

void DirectoryCache::ForgetNames(const NodePtr &directory)
{
    DirectoryHandlePtr handle;
    {
        const MutexLock held(lock);
        auto slot = FindSlot(directory);
        if (slot != slots.end())
            handle = slot->handle;
    }
    if (handle)
        handle->Names().Forget(RecentNames::Clock::now());
}

void DirectoryCache::Drop(const NodePtr &directory)
{
    DirectoryHandlePtr dropped;
    const MutexLock held(lock);
    auto slot = FindSlot(directory);
    if (slot == slots.end() || !slot->handle)
        return;
    dropped = std::move(slot->handle);
    slots.erase(slot);
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
            slot->handle->KeepUntilClosed(barrier);
            dropped.push_back(std::move(slot->handle));
            slot = slots.erase(slot);
        }
    }
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
