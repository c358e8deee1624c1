#include "platform/linux/LibraryThreads.h"
#include "platform/linux/TaskPoolImpl.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <utility>

namespace fodr::platform {

namespace {

// How long a thread that ran out of work looks for more before it sleeps: less than waking it would cost.
constexpr std::chrono::microseconds kLookAround{20};

} // namespace

void *TaskPool::Impl::WorkerEntry(void *argument)
{
    Worker &self = *static_cast<Worker *>(argument);
    ownWorker = &self;
    pthread_setname_np(pthread_self(), "fodr-pool");
    self.pool->Work(self);
    return nullptr;
}

void TaskPool::Impl::Work(Worker &self)
{
    pthread_t predecessor{};
    bool hasPredecessor = false;
    {
        const MutexLock lock(mutex);
        do {
            while (!queue.empty())
                RunNext(self);
            LookAround();
        } while (!queue.empty() || (!stopping && Rest(self)));

        Become(self, State::Gone);
        predecessor = std::exchange(leaver, pthread_self());
        hasPredecessor = std::exchange(hasLeaver, true);
        if (--threads == 0)
            lastThreadGone.notify_all();
    }
    if (hasPredecessor)
        pthread_join(predecessor, nullptr);
}

void TaskPool::Impl::RunNext(Worker &self)
{
    const Task task = queue.front();
    queue.pop_front();
    queued.store(queue.size(), std::memory_order_relaxed);
    Become(self, State::Running);
    const Orders orders = CallHelp();
    mutex.unlock();
    CarryOut(orders);
    task.callback(task.context);
    mutex.lock();
    ++completed;
    Become(self, State::Searching);
}

// One thread at a time stays awake for a moment when the queue has run dry: the next request is often near.
void TaskPool::Impl::LookAround()
{
    if (!mayLookAround || stopping || searching > 1)
        return;
    mutex.unlock();
    const auto end = std::chrono::steady_clock::now() + kLookAround;
    while (queued.load(std::memory_order_acquire) == 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    mutex.lock();
}

// Sleeps until there is work. False when there was none for so long that the thread should end. One thread
// rests without a limit, so that a pool at rest has one thread and no timer.
bool TaskPool::Impl::Rest(Worker &self)
{
    const bool forGood = idle.empty();
    idle.push_back(&self);
    self.called = false;
    Become(self, State::Idle);
    const auto end = std::chrono::steady_clock::now() + patience.idle;
    while (!self.called && !stopping) {
        if (forGood)
            self.wake.wait(mutex);
        else if (self.wake.wait_until(mutex, end) == std::cv_status::timeout)
            break;
    }
    if (self.called)
        return true;
    idle.erase(std::find(idle.begin(), idle.end(), &self));
    Become(self, State::Searching);
    return !queue.empty();
}

// The watch runs while work waits although all threads that should be running are.
void TaskPool::Impl::StartWatching()
{
    if (watching || (idle.empty() && !HasRoom()))
        return;
    if (!hasWatcher)
        hasWatcher = StartSmallThread(&watcher, WatchEntry, this);
    if (!hasWatcher)
        return;
    watching = true;
    watchWake.notify_one();
}

void *TaskPool::Impl::WatchEntry(void *argument)
{
    pthread_setname_np(pthread_self(), "fodr-pool-watch");
    static_cast<Impl *>(argument)->Watch();
    return nullptr;
}

void TaskPool::Impl::Watch()
{
    const MutexLock lock(mutex);
    for (;;) {
        while (!watching && !watchEnded)
            watchWake.wait(mutex);
        for (Worker &worker : workers)
            worker.stretchSeen = worker.stretch;
        const uint64_t completedBefore = completed;
        const auto end = std::chrono::steady_clock::now() + patience.stall;
        while (!watchEnded && watchWake.wait_until(mutex, end) != std::cv_status::timeout) {
        }
        if (watchEnded)
            return;
        if (!queue.empty() && (!idle.empty() || HasRoom())) {
            RelieveStalled(completedBefore);
        } else {
            watching = false;
            relief = 1;
        }
    }
}

// Puts threads in the place of those that didn't get on. When no task at all was completed, twice as many as
// the last time, so that any number of silent blockers is overcome in a few rounds.
void TaskPool::Impl::RelieveStalled(uint64_t completedBefore)
{
    for (Worker &worker : workers) {
        if (worker.state == State::Running && worker.stretchSeen == worker.stretch)
            Become(worker, State::Stalled);
    }
    relief = completed == completedBefore ? relief * 2 : 1;
    const size_t room = running < target ? target - running : 0;
    for (size_t n = std::max(room, relief); n > 0 && searching < queue.size(); --n) {
        const Orders orders = CallWorker();
        if (!orders.wake && !orders.start)
            break;
        mutex.unlock();
        const bool done = CarryOut(orders);
        mutex.lock();
        if (!done)
            break;
    }
}

} // namespace fodr::platform
