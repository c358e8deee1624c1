#include "runtime/OVThread.h"

#include "runtime/OVThreadData.h"

namespace fodr {

OVThread::OVThread(const std::string &name) : data(new OVThreadData(name, this)) {}

OVThread::~OVThread()
{
    RCPtr<OVThreadData> held = data;
    if (held)
        held->MarkDeleted();
}

bool OVThread::Start(Callback callback, void *argument, uint32_t intervalMS, bool wakeOnMessages)
{
    RCPtr<OVThreadData> held = data;
    return held && held->Start(callback, argument, intervalMS, wakeOnMessages);
}

bool OVThread::Stop(uint32_t timeoutMS)
{
    RCPtr<OVThreadData> held = data;
    if (!held)
        return true;
    held->stopEvent.Set();
    return held->WaitForStop(timeoutMS);
}

bool OVThread::WaitForStop(uint32_t timeoutMS)
{
    RCPtr<OVThreadData> held = data;
    return !held || held->WaitForStop(timeoutMS);
}

bool OVThread::IsCurrentThread() const
{
    RCPtr<OVThreadData> held = data;
    return held && held->IsCurrentThread();
}

void OVThread::SetNextWaitMS(int32_t waitMS)
{
    RCPtr<OVThreadData> held = data;
    OVMutexLock guard(held->lock);
    held->nextWaitMS = waitMS;
}

OVEvent OVThread::ExitEvent() const
{
    return data->stopEvent;
}

OVEvent OVThread::ThreadEvent() const
{
    RCPtr<OVThreadData> held = data;
    OVMutexLock guard(held->lock);
    return held->threadHandle;
}

} // namespace fodr
