#include "fileservice/RdpFileHandle.h"

namespace fodr {

void RdpFileHandle::BeginIo()
{
    OVMutexLock held(lock);
    if (pendingIo.fetch_add(1) == 0)
        idleEvent.Reset();
}

void RdpFileHandle::EndIo()
{
    OVMutexLock held(lock);
    if (pendingIo.fetch_sub(1) == 1)
        idleEvent.Set();
}

bool RdpFileHandle::WaitIdle(uint32_t timeoutMS)
{
    return idleEvent.Wait(timeoutMS) != OVEvent::kTimeout;
}

} // namespace fodr
