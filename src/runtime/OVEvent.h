// Waitable event, or any other waitable object of the platform. Copies share the object.
#pragma once

#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

class OVEventData;

class OVEvent : public RCObject {
public:
    static constexpr int32_t kSignalled = 0;
    static constexpr int32_t kTimeout = -1;
    static constexpr int32_t kFailed = -2;
    static constexpr int32_t kAlerted = -3;

    OVEvent(); // no handle: every wait fails
    OVEvent(bool manualReset, bool initiallySet, const std::string &name = {});
    // Wraps a waitable object of the platform (platform/Threads.h); `owns` says whether it is closed with
    // this.
    OVEvent(void *handle, bool owns);
    OVEvent(const OVEvent &other);
    OVEvent &operator=(const OVEvent &other);
    ~OVEvent() override;

    void *Handle() const; // null when there is none
    bool IsValid() const;
    bool Set();   // false when there is no handle
    bool Reset(); // likewise
    // kSignalled, kTimeout or kFailed.
    int32_t Wait(uint32_t timeoutMS = kInfinite);

    // The index of a signalled entry (the lowest; with `waitAll`, 0 when all are), the count of entries for a
    // queued window message, or one of the negative results above. A null entry is passed as a null handle.
    static int32_t WaitForMultiple(const std::vector<OVEvent *> &events, bool waitAll, uint32_t timeoutMS,
                                   bool messagesToo, bool alertable);

private:
    RCPtr<OVEventData> data;
};

} // namespace fodr
