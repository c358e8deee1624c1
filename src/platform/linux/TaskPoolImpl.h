// The pool on pthreads. One mutex guards everything; a task costs it twice.
//
// Whoever adds work wakes one thread at most, and none while a thread is on its way to the queue: that one
// calls the next as long as there is work left (so a burst wakes its helpers one by one, and the submitting
// thread pays for one at most). Only as many threads as `target` run tasks at a time. A task in a
// BlockingSection doesn't count, nor one that the stall check has found.
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/TaskPool.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <thread>
#include <vector>

namespace fodr::platform {

class TaskPool::Impl {
public:
    Impl(uint32_t threadLimit, Patience given)
        : limit(threadLimit == 0 ? kMostRunning : threadLimit), waitersCount(threadLimit != 0),
          patience(given)
    {}
    ~Impl();

    bool Submit(void (*callback)(void *), void *context);
    size_t ThreadCount();
    static bool EnterBlocking();
    static void LeaveBlocking();

private:
    struct Task {
        void (*callback)(void *);
        void *context;
        uint64_t number;
    };

    enum class State { Gone, Idle, Searching, Running, Blocked, Stalled };

    // Guarded by the pool's mutex. Records are kept until the pool goes, so that one may be notified after
    // the lock is released.
    struct Worker {
        Impl *pool = nullptr;
        State state = State::Gone;
        bool called = false;        // while idle: there is work
        uint32_t blockingDepth = 0; // of its own thread alone
        uint64_t stretch = 0;       // counts the stretches of running
        uint64_t stretchSeen = 0;   // as the stall check last saw it
        Condition wake;
    };

    // What remains to be done for a worker when the lock is released.
    struct Orders {
        Worker *wake = nullptr;
        Worker *start = nullptr;
    };

    static thread_local Worker *ownWorker;

    void AwaitSettled() REQUIRES(mutex);
    void Become(Worker &worker, State state) REQUIRES(mutex);
    bool HasRoom() const REQUIRES(mutex) { return threads - (waitersCount ? 0 : blocked) < limit; }
    Orders CallHelp() REQUIRES(mutex);
    Orders CallWorker() REQUIRES(mutex);
    bool CarryOut(Orders orders) EXCLUDES(mutex);
    Worker *UnusedRecord() REQUIRES(mutex);

    static void *WorkerEntry(void *argument);
    void Work(Worker &self);
    void RunNext(Worker &self) REQUIRES(mutex);
    void LookAround() REQUIRES(mutex);
    bool Rest(Worker &self) REQUIRES(mutex);

    static void *WatchEntry(void *argument);
    void StartWatching() REQUIRES(mutex);
    void Watch();
    void RelieveStalled(uint64_t completedBefore) REQUIRES(mutex);

    const size_t target = std::max<size_t>(4, 2 * std::thread::hardware_concurrency());
    const size_t limit;
    const bool waitersCount; // against the limit
    const Patience patience;
    const bool mayLookAround = std::thread::hardware_concurrency() > 1;

    Mutex mutex;
    std::deque<Task> queue GUARDED_BY(mutex);
    std::atomic<size_t> queued{0}; // the size of `queue`, for looking around without the lock
    uint64_t submitted GUARDED_BY(mutex) = 0;
    uint64_t completed GUARDED_BY(mutex) = 0;
    std::deque<Worker> workers GUARDED_BY(mutex);
    std::vector<Worker *> idle GUARDED_BY(mutex); // the one that rested last is called first
    size_t threads GUARDED_BY(mutex) = 0;
    size_t starting GUARDED_BY(mutex) = 0; // of them those that are being made
    Condition startSettled;
    size_t searching GUARDED_BY(mutex) = 0; // threads on their way to the queue
    size_t running GUARDED_BY(mutex) = 0;
    size_t blocked GUARDED_BY(mutex) = 0;
    bool stopping GUARDED_BY(mutex) = false;
    Condition lastThreadGone;
    // A leaving thread joins the one that left before it, the destructor joins the last.
    pthread_t leaver GUARDED_BY(mutex){};
    bool hasLeaver GUARDED_BY(mutex) = false;

    Condition watchWake;
    pthread_t watcher GUARDED_BY(mutex){};
    bool hasWatcher GUARDED_BY(mutex) = false;
    bool watching GUARDED_BY(mutex) = false;
    bool watchEnded GUARDED_BY(mutex) = false;
    size_t relief GUARDED_BY(mutex) = 1; // threads to add at the next stall
};

} // namespace fodr::platform
