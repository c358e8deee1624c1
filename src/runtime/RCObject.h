// Counted objects, the pointers to them, and an owner of blocks from the C heap. A count lives in its object;
// one process-wide lock guards all counts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace fodr {

class WkReference;

// Base of counted objects. A new object has no reference; the first RCPtr takes one. The object deletes
// itself when the last reference goes; the lock is not held while its destructor runs.
class RCObject {
public:
    RCObject() = default;
    virtual ~RCObject() = default;
    RCObject(const RCObject &) = delete;
    RCObject &operator=(const RCObject &) = delete;

    // A new weak record that points at this object; null if the allocation fails. Called with the lock held:
    // an override only makes the record.
    virtual WkReference *NewWkReference();

    // Value of `refCount` from the last Release on: the object is dying and hands out no weak references.
    static constexpr int32_t kDying = 0xDEAD00;

private:
    friend int32_t AddRef(RCObject *object);
    friend int32_t Release(RCObject *object);
    friend int32_t RefCount(const RCObject *object);
    friend WkReference *GetWkReference(RCObject *object);
    friend RCObject *PromoteWkReference(WkReference *reference);

    int32_t refCount = 0;           // guarded by refCountLock
    WkReference *weakRef = nullptr; // guarded by refCountLock; holds one count on it
};

// The new count.
int32_t AddRef(RCObject *object);
// The new count. Releasing an unreferenced object does nothing and gives 0.
int32_t Release(RCObject *object);
// The count at this moment.
int32_t RefCount(const RCObject *object);
// The weak record, made on first use and borrowed; null for a dying object.
WkReference *GetWkReference(RCObject *object);
// The record's object with a reference added, or null when it is dying or gone.
RCObject *PromoteWkReference(WkReference *reference);

// Strong pointer to a counted object: copies add a reference. The pointer is exchanged atomically and the old
// value released after that, so one RCPtr may be overwritten from several threads. Reading while another
// thread overwrites needs a lock of the caller's.
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

// The record that the weak pointers to one object share.
class WkReference : public RCObject {
public:
    explicit WkReference(RCObject *object) : target(object) {}
    ~WkReference() override { target = nullptr; }

private:
    friend int32_t Release(RCObject *object);
    friend RCObject *PromoteWkReference(WkReference *reference);

    RCObject *target; // guarded by refCountLock; null once the object is dying
};

// Weak pointer to a counted object: doesn't keep it alive, and finds out safely whether it still is.
template <typename T> class WkPtr {
public:
    WkPtr() = default;
    // Empty for null and for a dying object.
    WkPtr(T *object) : reference(object ? GetWkReference(object) : nullptr) {}
    WkPtr(const RCPtr<T> &object) : WkPtr(object.Get()) {}
    WkPtr(const WkPtr &) = default;
    WkPtr &operator=(const WkPtr &) = default;
    virtual ~WkPtr() = default;

    // The object with a reference, or empty once it is dying.
    RCPtr<T> Promote() const
    {
        if (!reference)
            return nullptr;
        return RCPtr<T>::Adopt(static_cast<T *>(PromoteWkReference(reference.Get())));
    }

private:
    RCPtr<WkReference> reference;
};

// Says which value means that nothing is held.
template <typename T> class InvalidValue {
public:
    virtual ~InvalidValue() = default;
    virtual T Get() const = 0;
};

template <typename T> class InvalidNullValue : public InvalidValue<T> {
public:
    T Get() const override { return nullptr; }
};

// Small owner of a value from the C heap, one thread at a time. The number tells kinds of holders of one type
// apart.
template <typename T, typename Invalid, int kind> class Holder {
public:
    explicit Holder(T held) : value(held) {}
    Holder() : value(Invalid().Get()) {}
    virtual ~Holder()
    {
        if (value != invalid.Get())
            free(value);
        value = invalid.Get();
    }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;

    T Get() const { return value; }
    // Where a function that hands out a block puts it. Nothing may be held.
    T *Receive() { return &value; }

private:
    T value;
    Invalid invalid;
};

using MemoryHolder = Holder<void *, InvalidNullValue<void *>, 10>;

} // namespace fodr
