#include "runtime/RCObject.h"

#include "lib/misc/Mutex.h"

#include <new>

namespace fodr {

namespace {

// Made on first use and never destroyed: objects are counted before main and after the statics are gone.
Mutex &RefCountLock()
{
    static Mutex *const refCountLock = new Mutex;
    return *refCountLock;
}

} // namespace

WkReference *RCObject::NewWkReference()
{
    return new (std::nothrow) WkReference(this);
}

int32_t AddRef(RCObject *object)
{
    const MutexLock guard(RefCountLock());
    return ++object->refCount;
}

int32_t Release(RCObject *object)
{
    WkReference *weak = nullptr;
    {
        const MutexLock guard(RefCountLock());
        if (object->refCount == 0)
            return 0;
        if (--object->refCount >= 1)
            return object->refCount;
        // A reference that the destructor takes and drops counts from here on, and never comes to 0 again.
        object->refCount = RCObject::kDying;
        if (object->weakRef) {
            weak = object->weakRef;
            weak->target = nullptr;
            object->weakRef = nullptr;
        }
    }
    if (weak)
        Release(weak);
    delete object;
    return 0;
}

int32_t RefCount(const RCObject *object)
{
    const MutexLock guard(RefCountLock());
    return object->refCount;
}

WkReference *GetWkReference(RCObject *object)
{
    const MutexLock guard(RefCountLock());
    if (object->refCount >= RCObject::kDying)
        return nullptr;
    if (!object->weakRef) {
        object->weakRef = object->NewWkReference();
        if (object->weakRef)
            ++static_cast<RCObject *>(object->weakRef)->refCount;
    }
    return object->weakRef;
}

RCObject *PromoteWkReference(WkReference *reference)
{
    const MutexLock guard(RefCountLock());
    RCObject *target = reference->target;
    if (target)
        ++target->refCount;
    return target;
}

} // namespace fodr
