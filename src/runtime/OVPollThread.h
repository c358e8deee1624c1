// One thread that runs many small jobs, each when its event fires or its time is up.
#pragma once

#include "lib/misc/Mutex.h"
#include "runtime/OVEvent.h"
#include "runtime/OVMutex.h"
#include "runtime/OVPollItem.h"
#include "runtime/OVThread.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace fodr {

// Any thread may call any operation, and an item may from within its run. One lock guards all state: the
// thread's own, or the one given by SetLock. The scheduler lets go of it while it waits and while an item
// runs. Nothing here wakes up but for an event, a time that is up or a change.
//
// The running scheduler holds a reference. When it is the last one the thread ends at its next wake-up.
class OVPollThread : public RCObject {
public:
    explicit OVPollThread(const std::string &threadName);
    ~OVPollThread() override;

    // False when the item belongs to another thread. An item that is here already goes to the end of the
    // queue. `event` isn't owned; `timeoutMS` of -1 is none. At most 62 items can have events.
    bool AddItem(const RCPtr<OVPollItem> &item, OVEvent *event, int32_t timeoutMS);
    // False when the item isn't here. With `wait` its run is over then, see WaitForItemToComplete.
    bool RemoveItem(const RCPtr<OVPollItem> &item, bool wait);
    void RemoveAllItems(bool wait);
    // Returns when the item isn't running, or for null when none is; at once on the scheduler's own thread.
    // It isn't run again meanwhile. A caller that holds the lock, any number of times, gives it away for the
    // wait.
    void WaitForItemToComplete(const RCPtr<OVPollItem> &item);

    // From now on this lock, which outlives the thread and its items, takes the place of its own.
    void SetLock(OVMutex *mutex);
    void StartScheduler();
    // Returns when it has ended; at once on its own thread. A caller that holds the lock gives it away for
    // the wait.
    void StopScheduler();
    bool IsRunning() const;
    // Whether waits can be ended by an I/O completion of the system.
    void SetAlertable(bool alertableWaits);
    // The level of the lines about each round; NEVER at first.
    void SetLogLevel(int32_t level);
    void LogAllItems(int32_t level);

    const std::string &GetName() const { return name; }

private:
    friend class OVPollItem;

    // Holds the lock of a poll thread, or nothing for null.
    class Guard;
    struct Round;

    static bool SchedulerThreadCB(void *id, OVThread *thread);
    bool Scheduler();
    // The lists of one round, and who is next in time.
    void Prepare(Round &round) REQUIRES(lock);
    // The lock is let go of for the wait.
    int32_t Wait(Round &round) REQUIRES(lock);
    // What to do after a wait. False ends the scheduler.
    bool Choose(Round &round, int32_t result) REQUIRES(lock);
    void RunItem(const RCPtr<OVPollItem> &item, bool timedOut) REQUIRES(lock);
    bool MayRun(const OVPollItem &item) const;

    // Of the active lock, for which `lock` stands in all annotations.
    void Lock() ACQUIRE(lock);
    void Unlock() RELEASE(lock);
    // Gives away all that the caller holds of the lock while `action` runs.
    template <typename Action> void WithoutLock(const Action &action) REQUIRES(lock);

    bool Unlink(OVPollItem *item) REQUIRES(lock);

    const std::string name;
    OVThread thread;
    OVMutex lock;
    OVEvent dirtyEvent{false, false};
    std::atomic<OVMutex *> externalLock{nullptr}; // changed under the lock that it replaces
    OVEvent completionEvent{true, true};          // clear while an item runs
    OVPollItem *runningItem GUARDED_BY(lock) = nullptr;
    bool alertable GUARDED_BY(lock) = false;
    int32_t logLevel GUARDED_BY(lock);
    std::list<RCPtr<OVPollItem>> items GUARDED_BY(lock); // in the order of service
    uint64_t pollId = 0;                                 // constant after construction
};

// What an item and its thread share:

inline constexpr int kPollDecimals = 3; // of durations in log lines

// As a pointer is printed on a system whose %p doesn't say "0x".
inline unsigned long long PollIdForLog(uint64_t pollId)
{
    return pollId;
}
// "INFINITE" for -1.
std::string PollDurationText(int64_t ms);
// Empty when the thread is gone.
RCPtr<OVPollThread> FindPollThread(uint64_t pollId);

// For null, an item without a thread, it does nothing.
class SCOPED_CAPABILITY OVPollThread::Guard {
public:
    explicit Guard(OVPollThread *heldThread) ACQUIRE(heldThread->lock) NO_THREAD_SAFETY_ANALYSIS
        : thread(heldThread)
    {
        if (thread)
            thread->Lock();
    }
    ~Guard() RELEASE() NO_THREAD_SAFETY_ANALYSIS
    {
        if (thread)
            thread->Unlock();
    }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

    void SetDirty() const
    {
        if (thread)
            thread->dirtyEvent.Set();
    }
    const char *Name() const { return thread ? thread->name.c_str() : "no thread"; }

private:
    OVPollThread *const thread;
};

} // namespace fodr
