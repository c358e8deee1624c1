// The handle of a channel object.
#pragma once

#include <atomic>

namespace fodr {

// The host writes the handle from inside CreateObject, before it reports any state of the object, which it
// may do from there or from another thread. So the slot that the host writes to is the one that all others
// read.
//
// While DestroyObject runs the handle is still there for the host's last notices, but not for senders.
class HostHandle {
public:
    static_assert(std::atomic_ref<void *>::is_always_lock_free);

    void **Slot() { return &handle; }
    void *Get() const { return Reference().load(); }
    void *ForSending() const { return leaving ? nullptr : Get(); }

    // The handle, for the one caller that is to destroy it and calls Clear then; else null.
    void *TakeForDestruction()
    {
        if (leaving.exchange(true))
            return nullptr;
        void *taken = Get(); // only now: another thread may have destroyed it meanwhile
        if (!taken)
            leaving = false;
        return taken;
    }
    void Clear()
    {
        Reference().store(nullptr);
        leaving = false;
    }

private:
    std::atomic_ref<void *> Reference() const { return std::atomic_ref<void *>(handle); }

    mutable void *handle = nullptr;
    std::atomic<bool> leaving{false};
};

} // namespace fodr
