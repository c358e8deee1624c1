// The record that the weak pointers to one object share.
#pragma once

#include "runtime/RCObject.h"

namespace fodr {

class WkReference : public RCObject {
public:
    explicit WkReference(RCObject *object) : target(object) {}
    ~WkReference() override { target = nullptr; }

private:
    friend int32_t Release(RCObject *object);
    friend RCObject *PromoteWkReference(WkReference *reference);

    RCObject *target; // guarded by refCountLock; null once the object is dying
};

} // namespace fodr
