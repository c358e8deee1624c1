// Counts the requests in flight on one open file, so that its close can wait for them. Any thread.
#pragma once

#include "lib/misc/Mutex.h"
#include "runtime/OVEvent.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdint>

namespace fodr {

class RdpFileHandle : public RCObject {
public:
    explicit RdpFileHandle(bool ofRoot) : isRoot(ofRoot), idleEvent(true, true) {}

    const bool isRoot; // opened as the share's root

    void BeginIo();
    void EndIo();

    // A request that BeginIo has counted, to its end.
    class InFlight {
    public:
        explicit InFlight(RdpFileHandle &ofHandle) : handle(ofHandle) {}
        ~InFlight() { handle.EndIo(); }
        InFlight(const InFlight &) = delete;
        InFlight &operator=(const InFlight &) = delete;

    private:
        RdpFileHandle &handle;
    };

    // Read without the lock: a request that begins or ends at this very moment may be missed.
    bool IsBusy() const { return pendingIo.load(std::memory_order_acquire) != 0; }
    // True when no request is in flight, false when the time ran out first.
    bool WaitIdle(uint32_t timeoutMS);

private:
    OVMutex lock;                      // orders changes of pendingIo and idleEvent
    OVEvent idleEvent;                 // signalled exactly while pendingIo is 0
    std::atomic<int32_t> pendingIo{0}; // written under lock
};

} // namespace fodr
