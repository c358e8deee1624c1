// Open folders, kept for a while: a name is looked up with one request on its folder's handle, and the same
// handle tells when something in the folder changes. A handle belongs to the folder, not to its path. The
// number of them is bounded, and with it the number of requests that wait at the other side. Any thread;
// handlers run outside the lock.
#pragma once

#include "agent/fuse/NodeTable.h"
#include "agent/fuse/RecentNames.h"

#include <functional>
#include <list>
#include <optional>

namespace fodr::agent {

// Closes the folder when the last who uses it has done so.
class DirectoryHandle {
public:
    DirectoryHandle(NodePtr directory, std::shared_ptr<RemoteShare> remoteShare, uint32_t remoteFile)
        : node(std::move(directory)), share(std::move(remoteShare)), fileId(remoteFile)
    {}
    ~DirectoryHandle();
    DirectoryHandle(const DirectoryHandle &) = delete;
    DirectoryHandle &operator=(const DirectoryHandle &) = delete;

    RemoteShare &Share() const { return *share; }
    uint32_t FileId() const { return fileId; }
    RecentNames &Names() { return names; }
    // Calls the function once it is known whether the handle is of the folder that was meant: STATUS_SUCCESS,
    // or STATUS_OBJECT_PATH_NOT_FOUND for another, or why it can't be told (SaysStaleHandle,
    // STATUS_IO_TIMEOUT).
    void WhenChecked(InlineFunction<void(nt::NTSTATUS)> function);
    void NoteChecked(nt::NTSTATUS outcome);
    // Something that is let go when the close has been answered. Set by who takes the handle out of use.
    void KeepUntilClosed(std::shared_ptr<void> thing) { kept = std::move(thing); }

private:
    std::shared_ptr<void> kept;
    const NodePtr node;
    const std::shared_ptr<RemoteShare> share;
    const uint32_t fileId;
    RecentNames names;
    Mutex lock;
    std::optional<nt::NTSTATUS> checked GUARDED_BY(lock);
    std::vector<InlineFunction<void(nt::NTSTATUS)>> waiting GUARDED_BY(lock);
};
using DirectoryHandlePtr = std::shared_ptr<DirectoryHandle>;

class DirectoryCache {
public:
    static constexpr size_t kCapacity = 64;

    // `onChange` is told of a folder in which something has changed, on any thread. Further changes are asked
    // for once it calls `next`; those in between the other side remembers. It may drop `next`, which is empty
    // when the folder can't be watched any more.
    using ChangeHook = std::function<void(const NodePtr &directory, InlineFunction<void()> next)>;
    // `onLeave` is told of a folder that isn't watched any more though nothing has changed in it.
    using LeaveHook = std::function<void(const NodePtr &directory)>;
    // `onWatch` is told of one that is watched from now on.
    using WatchHook = std::function<void(const NodePtr &directory)>;
    DirectoryCache(
        NodeTable &nodeTable, ChangeHook onChange, LeaveHook onLeave,
        WatchHook onWatch = [](const NodePtr &) {})
        : table(nodeTable), changeHook(std::move(onChange)), leaveHook(std::move(onLeave)),
          watchHook(std::move(onWatch))
    {}

    // Gives the folder's handle, opened if need be; null with the status of a failure. It may not have been
    // checked yet (DirectoryHandle::WhenChecked): what is asked with it needn't wait, what is answered does.
    using Handler = InlineFunction<void(nt::NTSTATUS, const DirectoryHandlePtr &)>;
    void Acquire(const NodePtr &directory, Handler handler);

    // What was told of the folder's names doesn't count any more.
    void ForgetNames(const NodePtr &directory);
    // Forgets a handle that turned out to be of no use.
    void Drop(const NodePtr &directory);
    // The kept handle, if there is one that is open.
    DirectoryHandlePtr Present(const NodePtr &directory);
    // Closes the handles of a folder and of all folders in it, because its place or its life ends. `closed`
    // is called when the other side has done so; those who still use one are waited for, and what is being
    // opened.
    void DropBelow(const NodePtr &directory, InlineFunction<void()> closed);
    void Clear();

private:
    struct Slot {
        NodePtr node;
        DirectoryHandlePtr handle; // null while it is being opened
        std::vector<Handler> waiters;
        uint64_t serial = 0;            // tells this opening from a later one of the same folder
        std::shared_ptr<void> ending{}; // dropped while it is being opened: let go with the handle
    };
    using Slots = std::list<Slot>; // the latest used first

    Slots::iterator FindSlot(const NodePtr &node) REQUIRES(lock);
    void EvictOne(std::vector<DirectoryHandlePtr> *evicted, std::vector<NodePtr> *left) REQUIRES(lock);
    void OnOpened(const NodePtr &node, uint64_t serial, const std::shared_ptr<RemoteShare> &share,
                  const IoResult &result);
    void Check(const NodePtr &node, const DirectoryHandlePtr &handle);
    void Watch(const NodePtr &node, const DirectoryHandlePtr &handle, Node::Clock::time_point from);
    void DropHandle(const NodePtr &node, const DirectoryHandlePtr &handle);

    NodeTable &table;
    const ChangeHook changeHook;
    const LeaveHook leaveHook;
    const WatchHook watchHook;
    Mutex lock;
    Slots slots GUARDED_BY(lock);
    uint64_t lastSerial GUARDED_BY(lock) = 0;
};

} // namespace fodr::agent
