// What an OVThread shares with the thread it runs. Internal to OVThread.
#pragma once

#include "platform/Threads.h"
#include "runtime/OVThread.h"

#include <atomic>

namespace fodr {

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

} // namespace fodr
