// Weak pointer to a counted object: doesn't keep it alive, and finds out safely whether it still is.
#pragma once

#include "runtime/RCPtr.h"
#include "runtime/WkReference.h"

namespace fodr {

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

} // namespace fodr
