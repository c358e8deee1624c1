#include "runtime/OVThread.h"

#include "platform/Threads.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace fodr {

// What an OVThread shares with the thread it runs.
class OVThreadData : public RCObject {
public:
    OVThreadData(const std::string &threadName, OVThread *ownerThread) : name(threadName), owner(ownerThread)
    {}

    bool Start(OVThread::Callback threadCallback, void *threadArgument, uint32_t interval, bool messages);
    bool WaitForStop(uint32_t timeoutMS);
    // The OVThread is going.
    void MarkDeleted();
    bool IsCurrentThread() const { return threadId == platform::CurrentThreadId(); }

    const std::string name;
    OVThread::Callback callback GUARDED_BY(lock) = nullptr;
    void *argument GUARDED_BY(lock) = nullptr;
    uint32_t intervalMS GUARDED_BY(lock) = 0;
    int32_t nextWaitMS GUARDED_BY(lock) = -1; // -1: none
    bool wakeOnMessages GUARDED_BY(lock) = false;
    std::atomic<uint32_t> threadId{0}; // 0 when not running
    platform::ThreadRecord *osThread GUARDED_BY(lock) = nullptr;
    OVThread *owner GUARDED_BY(lock);
    bool deleted GUARDED_BY(lock) = false;
    OVEvent startedEvent{false, false};
    OVEvent stopEvent{true, false};
    OVEvent exitedEvent{true, false};
    OVMutex lock;
    OVEvent threadHandle; // empty before a start

private:
    static void ThreadEntry(void *data);
    void Run();
    // One call and the wait behind it. False when the thread is to leave, with the reason in `ending`.
    bool RunOnce(const char *&ending) REQUIRES(lock);
};

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

bool OVThreadData::Start(OVThread::Callback threadCallback, void *threadArgument, uint32_t interval,
                         bool messages)
{
    OVMutexLock guard(lock);
    if (!threadCallback || osThread)
        return false;
    if (!exitedEvent.Reset() || !stopEvent.Reset() || !startedEvent.Reset())
        return false;
    threadHandle = OVEvent();
    callback = threadCallback;
    argument = threadArgument;
    intervalMS = interval;
    wakeOnMessages = messages;
    AddRef(this); // the thread's
    osThread = platform::StartThread(ThreadEntry, this);
    if (!osThread) {
        Release(this);
        return false;
    }
    threadHandle = OVEvent(platform::DuplicateThreadHandle(osThread), true);
    startedEvent.Wait();
    return true;
}

bool OVThreadData::WaitForStop(uint32_t timeoutMS)
{
    OVMutexLock guard(lock);
    const unsigned int id = threadId;
    OVEvent ended = threadHandle;
    if (!osThread) {
        OVMutexUnlock unlocked(lock);
        return ended.Wait(timeoutMS) != OVEvent::kTimeout; // another caller may be joining it
    }
    if (IsCurrentThread())
        return false;
    int32_t result;
    {
        OVMutexUnlock unlocked(lock);
        result = OVEvent::WaitForMultiple({&exitedEvent, &ended}, false, timeoutMS, false, false);
    }
    if (result < 0)
        return false;
    if (!osThread || threadHandle.Handle() != ended.Handle()) {
        OVMutexUnlock unlocked(lock);
        ended.Wait(kInfinite); // another caller was first, joins it and may have started it again
        return true;
    }
    if (result == 1) {
        LOG_DEBUG("Thread %s(0x%04X) exited unexpectedly", name.c_str(), id);
        threadId = 0;
        stopEvent.Set();
        exitedEvent.Set();
    }
    // Without the lock: the thread's last line may wait for a log call that asks whether it still runs.
    platform::ThreadRecord *const leaving = std::exchange(osThread, nullptr);
    OVMutexUnlock unlocked(lock);
    if (!platform::JoinThread(leaving))
        LOG_WARN("Thread %s(0x%04X) is not joinable", name.c_str(), id);
    return true;
}

void OVThreadData::MarkDeleted()
{
    OVMutexLock guard(lock);
    if (osThread) {
        const unsigned int id = threadId;
        LOG_DEBUG("Setting deleted flag for thread %s(0x%04X)", name.c_str(), id);
        deleted = true;
        if (!platform::DetachThread(osThread))
            LOG_WARN("Thread %s(0x%04X) is not joinable", name.c_str(), id);
        osThread = nullptr;
    }
    owner = nullptr;
}

void OVThreadData::ThreadEntry(void *data)
{
    RCPtr<OVThreadData> self = RCPtr<OVThreadData>::Adopt(static_cast<OVThreadData *>(data));
    self->threadId = platform::CurrentThreadId();
    self->startedEvent.Set();
    self->Run();
}

void OVThreadData::Run()
{
    platform::ThreadApartment apartment;
    platform::SetCurrentThreadName(name.c_str());
    LOG_INFO("Thread %s started", name.c_str());
    const char *ending = "exited";
    {
        OVMutexLock guard(lock);
        while (RunOnce(ending)) {
        }
        threadId = 0;
        exitedEvent.Set();
    }
    // Without the lock: the log's own thread is started and asked for by who holds the log's mutex. Who waits
    // for the end joins the thread, so this line comes before that.
    LOG_INFO("Thread %s %s", name.c_str(), ending);
}

bool OVThreadData::RunOnce(const char *&ending)
{
    const OVThread::Callback currentCallback = callback;
    void *const currentArgument = argument;
    OVThread *const currentOwner = owner;
    bool goOn;
    {
        OVMutexUnlock unlocked(lock);
        goOn = currentCallback(currentArgument, currentOwner);
    }
    if (deleted || !goOn) {
        ending = deleted ? "was deleted" : "exited by callback";
        stopEvent.Set();
        return false;
    }
    const uint32_t waitMS = std::min(+intervalMS, static_cast<uint32_t>(+nextWaitMS));
    nextWaitMS = -1;
    const bool messagesToo = wakeOnMessages;
    int32_t result;
    {
        OVMutexUnlock unlocked(lock);
        result = OVEvent::WaitForMultiple({&stopEvent, &startedEvent}, false, waitMS, messagesToo, false);
    }
    return result != OVEvent::kSignalled && result != OVEvent::kFailed;
}

} // namespace fodr
