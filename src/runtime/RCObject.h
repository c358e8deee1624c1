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

} // namespace fodr
