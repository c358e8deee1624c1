// The system's thread pool: a private pool, and a clean-up group that waits for everything at the end.
#include "platform/TaskPool.h"

#include "lib/misc/Mutex.h"
#include "platform/windows/Win32.h"

#include <atomic>

namespace fodr::platform {

namespace {

// Of the task that runs on this thread; null outside of one, and once it has said that it will wait.
thread_local PTP_CALLBACK_INSTANCE currentInstance = nullptr;
thread_local bool inTask = false;
thread_local uint32_t blockingDepth = 0;

// Shared by the tasks; lives until the last of them has ended.
class TaskCount {
public:
    void Started() { ++running; }
    size_t Running() const { return running; }

    void Submitted() { ++unfinished; }
    void Finished()
    {
        if (--unfinished > 0)
            return;
        const MutexLock held(lock);
        allFinished.notify_all();
    }
    void Ended()
    {
        --running;
        Finished();
    }
    void AwaitAll()
    {
        const MutexLock held(lock);
        while (unfinished != 0)
            allFinished.wait(lock);
    }

private:
    std::atomic<size_t> running{0};
    std::atomic<size_t> unfinished{0}; // also those that haven't started
    Mutex lock;
    Condition allFinished;
};

struct Task {
    void (*callback)(void *);
    void *context;
    std::shared_ptr<TaskCount> count;
};

void CALLBACK RunTask(PTP_CALLBACK_INSTANCE instance, void *argument, PTP_WORK)
{
    const std::unique_ptr<Task> task(static_cast<Task *>(argument));
    const QuietThread quiet;
    task->count->Started();
    currentInstance = instance;
    inTask = true;
    task->callback(task->context);
    inTask = false;
    currentInstance = nullptr;
    task->count->Ended();
}

} // namespace

class TaskPool::Impl {
public:
    explicit Impl(uint32_t maxThreads)
        : pool(CreateThreadpool(nullptr)), group(CreateThreadpoolCleanupGroup())
    {
        InitializeThreadpoolEnvironment(&environment);
        if (pool) {
            // The system counts those that wait as well, and they must not keep the others out.
            SetThreadpoolThreadMaximum(pool, maxThreads > 0 ? maxThreads : kMostRunning + kMostWaiting);
            SetThreadpoolCallbackPool(&environment, pool);
        }
        if (group)
            SetThreadpoolCallbackCleanupGroup(&environment, group, nullptr);
    }

    ~Impl()
    {
        // Nobody promises that the group still knows a work object that was closed before it ran.
        tasks->AwaitAll();
        if (group) {
            CloseThreadpoolCleanupGroupMembers(group, FALSE, nullptr);
            CloseThreadpoolCleanupGroup(group);
        }
        DestroyThreadpoolEnvironment(&environment);
        if (pool)
            CloseThreadpool(pool);
    }
    Impl(const Impl &) = delete;
    Impl &operator=(const Impl &) = delete;

    bool Submit(void (*callback)(void *), void *context)
    {
        if (!pool || !group)
            return false;
        auto *task = new (std::nothrow) Task{callback, context, tasks};
        PTP_WORK work = task ? CreateThreadpoolWork(RunTask, task, &environment) : nullptr;
        if (!work) {
            delete task;
            return false;
        }
        tasks->Submitted();
        SubmitThreadpoolWork(work);
        CloseThreadpoolWork(work); // which takes effect when it has run
        return true;
    }

    // The system doesn't tell how many idle threads it keeps.
    size_t Running() const { return tasks->Running(); }

private:
    const PTP_POOL pool;
    const PTP_CLEANUP_GROUP group;
    TP_CALLBACK_ENVIRON environment{};
    const std::shared_ptr<TaskCount> tasks = std::make_shared<TaskCount>();
};

TaskPool::TaskPool(uint32_t maxThreads) : TaskPool(maxThreads, Patience()) {}

// The system has its own patience.
TaskPool::TaskPool(uint32_t maxThreads, Patience) : impl(std::make_unique<Impl>(maxThreads)) {}

TaskPool::~TaskPool() = default;

bool TaskPool::Submit(void (*callback)(void *), void *context)
{
    return impl->Submit(callback, context);
}

size_t TaskPool::ThreadCount() const
{
    return impl->Running();
}

TaskPool::BlockingSection::BlockingSection() : granted(!inTask || blockingDepth > 0 || TakeWaitingPlace())
{
    if (!inTask || !granted)
        return;
    ++blockingDepth;
    if (currentInstance)
        CallbackMayRunLong(currentInstance);
    currentInstance = nullptr;
}

TaskPool::BlockingSection::~BlockingSection()
{
    if (inTask && granted && --blockingDepth == 0)
        LeaveWaitingPlace();
}

} // namespace fodr::platform
