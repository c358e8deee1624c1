// A value that follows its key: the extension point of OVRegKeyWatcher.
#pragma once

#include "runtime/OVRegValue.h"

namespace fodr {

class OVRegValueWatcher : public OVRegValue {
public:
    using OVRegValue::OVRegValue;

    // Called, without a lock held, when its key changed and the value was found to differ.
    virtual void OnValueChanged() {}
};

} // namespace fodr
