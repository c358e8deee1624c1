#include "runtime/RCObject.h"

#include <mutex>
#include <new>

namespace fodr {

namespace {

// Made on first use and never destroyed: objects are counted before main and after the statics are gone.
std::mutex &RefCountLock()
{
    static std::mutex *const refCountLock = new std::mutex;
    return *refCountLock;
}

} // namespace

WkReference *RCObject::NewWkReference()
{
    return new (std::nothrow) WkReference(this);
}

int32_t AddRef(RCObject *object)
{
    std::lock_guard guard(RefCountLock());
    return ++object->refCount;
}

int32_t Release(RCObject *object)
{
    WkReference *weak = nullptr;
    {
        std::lock_guard guard(RefCountLock());
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
    std::lock_guard guard(RefCountLock());
    return object->refCount;
}

WkReference *GetWkReference(RCObject *object)
{
    std::lock_guard guard(RefCountLock());
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
    std::lock_guard guard(RefCountLock());
    RCObject *target = reference->target;
    if (target)
        ++target->refCount;
    return target;
}

} // namespace fodr
