// Strong pointer to a counted object.
#pragma once

#include "runtime/RCObject.h"

#include <atomic>
#include <cstddef>
#include <utility>

namespace fodr {

// Shares an object: copies add a reference. The pointer is exchanged atomically and the old value released
// after that, so one RCPtr may be overwritten from several threads. Reading while another thread overwrites
// needs a lock of the caller's.
template <typename T> class RCPtr {
public:
    RCPtr() = default;
    RCPtr(std::nullptr_t) {}
    RCPtr(T *object) : pointer(object)
    {
        if (object)
            AddRef(object);
    }
    RCPtr(const RCPtr &other) : RCPtr(other.Get()) {}
    RCPtr(RCPtr &&other) noexcept : pointer(other.pointer.exchange(nullptr)) {}
    template <typename U> RCPtr(const RCPtr<U> &other) : RCPtr(static_cast<T *>(other.Get())) {}
    virtual ~RCPtr() { Replace(nullptr); }

    // Takes over a reference that the caller holds.
    static RCPtr Adopt(T *object)
    {
        RCPtr adopted;
        adopted.pointer.store(object, std::memory_order_release);
        return adopted;
    }

    RCPtr &operator=(const RCPtr &other) // NOLINT(bugprone-unhandled-self-assignment): added before released
    {
        T *object = other.Get();
        if (object)
            AddRef(object);
        Replace(object);
        return *this;
    }
    RCPtr &operator=(RCPtr &&other) noexcept
    {
        if (this != &other)
            Replace(other.pointer.exchange(nullptr));
        return *this;
    }

    T *Get() const { return pointer.load(std::memory_order_acquire); }
    T *operator->() const { return Get(); }
    T &operator*() const { return *Get(); }
    explicit operator bool() const { return Get() != nullptr; }
    friend bool operator==(const RCPtr &a, const RCPtr &b) { return a.Get() == b.Get(); }

private:
    void Replace(T *object)
    {
        if (T *old = pointer.exchange(object))
            Release(old);
    }

    std::atomic<T *> pointer{nullptr};
};

} // namespace fodr
