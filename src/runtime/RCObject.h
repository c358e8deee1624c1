// Intrusive reference counts: the count lives in the object, one process-wide lock guards all counts.
#pragma once

#include <cstdint>

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

    // A new weak record that points at this object; null if the allocation fails.
    virtual WkReference *NewWkReference();

    // Value of `refCount` from the last Release on: the object is dying and hands out no weak references.
    static constexpr int32_t kDying = 0xDEAD00;

private:
    friend int32_t AddRef(RCObject *object);
    friend int32_t Release(RCObject *object);
    friend WkReference *GetWkReference(RCObject *object);

    int32_t refCount = 0;           // guarded by refCountLock
    WkReference *weakRef = nullptr; // guarded by refCountLock; holds one count on it
};

// The new count.
int32_t AddRef(RCObject *object);
// The new count. Releasing an unreferenced object does nothing and gives 0.
int32_t Release(RCObject *object);
// The weak record, made on first use and borrowed; null for a dying object.
WkReference *GetWkReference(RCObject *object);

} // namespace fodr
