// The pool on pthreads. One mutex guards everything; a task costs it twice.
//
// Whoever adds work wakes one thread at most, and none while a thread is on its way to the queue: that one
// calls the next as long as there is work left (so a burst wakes its helpers one by one, and the submitting
// thread pays for one at most). Only as many threads as `target` run tasks at a time. A task in a
// BlockingSection doesn't count, nor one that the stall check has found.
#pragma once

#include "platform/TaskPool.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
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
    using Lock = std::unique_lock<std::mutex>;

    struct Task {
        void (*callback)(void *);
        void *context;
        uint64_t number;
    };

    enum class State { Gone, Idle, Searching, Running, Blocked, Stalled };

    // Records are kept until the pool goes, so that one may be notified after the lock is released.
    struct Worker {
        Impl *pool = nullptr;
        State state = State::Gone;
        bool called = false;        // while idle: there is work
        uint32_t blockingDepth = 0; // of its own thread alone
        uint64_t stretch = 0;       // counts the stretches of running
        uint64_t stretchSeen = 0;   // as the stall check last saw it
        std::condition_variable wake;
    };

    // What remains to be done for a worker when the lock is released.
    struct Orders {
        Worker *wake = nullptr;
        Worker *start = nullptr;
    };

    static thread_local Worker *ownWorker;

    void Become(Worker &worker, State state);
    bool HasRoom() const { return threads - (waitersCount ? 0 : blocked) < limit; }
    Orders CallHelp();
    Orders CallWorker();
    bool CarryOut(Orders orders);
    Worker *UnusedRecord();

    static void *WorkerEntry(void *argument);
    void Work(Worker &self);
    void RunNext(Lock &lock, Worker &self);
    void LookAround(Lock &lock);
    bool Rest(Lock &lock, Worker &self);

    static void *WatchEntry(void *argument);
    void StartWatching();
    void Watch();
    void RelieveStalled(Lock &lock, uint64_t completedBefore);

    const size_t target = std::max<size_t>(4, 2 * std::thread::hardware_concurrency());
    const size_t limit;
    const bool waitersCount; // against the limit
    const Patience patience;
    const bool mayLookAround = std::thread::hardware_concurrency() > 1;

    std::mutex mutex; // guards all below
    std::deque<Task> queue;
    std::atomic<size_t> queued{0}; // the size of `queue`, for looking around without the lock
    uint64_t submitted = 0;
    uint64_t completed = 0;
    std::deque<Worker> workers;
    std::vector<Worker *> idle; // the one that rested last is called first
    size_t threads = 0;
    size_t starting = 0; // of them those that are being made
    std::condition_variable startSettled;
    size_t searching = 0; // threads on their way to the queue
    size_t running = 0;
    size_t blocked = 0;
    bool stopping = false;
    std::condition_variable lastThreadGone;
    // A leaving thread joins the one that left before it, the destructor joins the last.
    pthread_t leaver{};
    bool hasLeaver = false;

    std::condition_variable watchWake;
    pthread_t watcher{};
    bool hasWatcher = false;
    bool watching = false;
    bool watchEnded = false;
    size_t relief = 1; // threads to add at the next stall
};

} // namespace fodr::platform
