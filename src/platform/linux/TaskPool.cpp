#include "platform/linux/LibraryThreads.h"
#include "platform/linux/TaskPoolImpl.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <new>

namespace fodr::platform {

thread_local TaskPool::Impl::Worker *TaskPool::Impl::ownWorker = nullptr;

TaskPool::Impl::~Impl()
{
    {
        const MutexLock lock(mutex);
        stopping = true;
        for (Worker *worker : idle)
            worker->wake.notify_one();
        while (threads != 0)
            lastThreadGone.wait(mutex);
        watchEnded = true;
        watchWake.notify_one();
    }
    if (hasWatcher)
        pthread_join(watcher, nullptr);
    {
        const MutexLock lock(mutex);
        while (threads != 0) // the watch may have started the last one
            lastThreadGone.wait(mutex);
    }
    for (const Task &task : queue) // only what was left for want of a thread
        task.callback(task.context);
    if (hasLeaver)
        pthread_join(leaver, nullptr);
}

// Threads that are only being made may not come to be: whoever relies on them waits for the outcome.
void TaskPool::Impl::AwaitSettled()
{
    while (starting != 0 && threads <= starting)
        startSettled.wait(mutex);
}

bool TaskPool::Impl::Submit(void (*callback)(void *), void *context)
{
    Orders orders;
    uint64_t number = 0;
    {
        const MutexLock lock(mutex);
        AwaitSettled();
        number = ++submitted;
        try {
            queue.push_back({callback, context, number});
        } catch (const std::bad_alloc &) {
            return false;
        }
        queued.store(queue.size(), std::memory_order_release);
        orders = CallHelp();
    }
    if (CarryOut(orders))
        return true;
    const MutexLock lock(mutex);
    AwaitSettled();
    if (threads != 0)
        return true; // the others get round to it
    const auto mine = std::find_if(queue.begin(), queue.end(),
                                   [number](const Task &task) { return task.number == number; });
    if (mine == queue.end())
        return true;
    queue.erase(mine);
    queued.store(queue.size(), std::memory_order_release);
    return false;
}

size_t TaskPool::Impl::ThreadCount()
{
    const MutexLock lock(mutex);
    return threads;
}

void TaskPool::Impl::Become(Worker &worker, State state)
{
    searching -= worker.state == State::Searching;
    running -= worker.state == State::Running;
    blocked -= worker.state == State::Blocked;
    worker.state = state;
    searching += state == State::Searching;
    running += state == State::Running;
    blocked += state == State::Blocked;
    worker.stretch += state == State::Running;
}

// Gets a thread for the work in the queue, if none is starting already.
TaskPool::Impl::Orders TaskPool::Impl::CallHelp()
{
    if (queue.empty() || searching > 0)
        return {};
    Orders orders;
    if (running < target)
        orders = CallWorker();
    if (!orders.wake && !orders.start)
        StartWatching();
    return orders;
}

TaskPool::Impl::Orders TaskPool::Impl::CallWorker()
{
    if (!idle.empty()) {
        Worker *worker = idle.back();
        idle.pop_back();
        worker->called = true;
        Become(*worker, State::Searching);
        return {worker, nullptr};
    }
    Worker *worker = HasRoom() ? UnusedRecord() : nullptr;
    if (!worker)
        return {};
    ++threads;
    ++starting;
    Become(*worker, State::Searching);
    return {nullptr, worker};
}

TaskPool::Impl::Worker *TaskPool::Impl::UnusedRecord()
{
    for (Worker &worker : workers) {
        if (worker.state == State::Gone)
            return &worker;
    }
    try {
        idle.reserve(workers.size() + 1); // so that resting can't fail
        Worker &worker = workers.emplace_back();
        worker.pool = this;
        return &worker;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

// Without the lock. False when a thread couldn't be started.
bool TaskPool::Impl::CarryOut(Orders orders)
{
    if (orders.wake)
        orders.wake->wake.notify_one();
    if (!orders.start)
        return true;
    pthread_t thread;
    const bool started = StartSmallThread(&thread, WorkerEntry, orders.start);
    const MutexLock lock(mutex);
    --starting;
    startSettled.notify_all();
    if (started)
        return true;
    Become(*orders.start, State::Gone);
    --threads;
    if (threads == 0)
        lastThreadGone.notify_all();
    else
        StartWatching(); // which tries again
    return false;
}

bool TaskPool::Impl::EnterBlocking()
{
    Worker *self = ownWorker;
    if (!self || self->blockingDepth > 0) {
        if (self)
            ++self->blockingDepth;
        return true;
    }
    if (!TakeWaitingPlace())
        return false;
    self->blockingDepth = 1;
    Impl &pool = *self->pool;
    Orders orders;
    {
        const MutexLock lock(pool.mutex);
        pool.Become(*self, State::Blocked);
        orders = pool.CallHelp();
    }
    pool.CarryOut(orders);
    return true;
}

void TaskPool::Impl::LeaveBlocking()
{
    Worker *self = ownWorker;
    if (!self || --self->blockingDepth > 0)
        return;
    LeaveWaitingPlace();
    Impl &pool = *self->pool;
    const MutexLock lock(pool.mutex);
    pool.Become(*self, State::Running);
}

TaskPool::TaskPool(uint32_t maxThreads) : TaskPool(maxThreads, Patience()) {}
TaskPool::TaskPool(uint32_t maxThreads, Patience patience)
    : impl(std::make_unique<Impl>(maxThreads, patience))
{}
TaskPool::~TaskPool() = default;

bool TaskPool::Submit(void (*callback)(void *), void *context)
{
    return impl->Submit(callback, context);
}

size_t TaskPool::ThreadCount() const
{
    return impl->ThreadCount();
}

TaskPool::BlockingSection::BlockingSection() : granted(Impl::EnterBlocking()) {}

TaskPool::BlockingSection::~BlockingSection()
{
    if (granted)
        Impl::LeaveBlocking();
}

} // namespace fodr::platform
