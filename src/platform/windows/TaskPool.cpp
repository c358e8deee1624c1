// The system's thread pool: a private pool, and a clean-up group that waits for everything at the end.
#include "platform/TaskPool.h"

#include "platform/windows/Win32.h"

#include <atomic>

namespace fodr::platform {

namespace {

// Of the task that runs on this thread; null outside of one, and once it has said that it will wait.
thread_local PTP_CALLBACK_INSTANCE currentInstance = nullptr;

struct Task {
    void (*callback)(void *);
    void *context;
    std::atomic<size_t> *running;
};

void CALLBACK RunTask(PTP_CALLBACK_INSTANCE instance, void *argument, PTP_WORK)
{
    const Task task = *static_cast<Task *>(argument);
    delete static_cast<Task *>(argument);
    ++*task.running;
    currentInstance = instance;
    task.callback(task.context);
    currentInstance = nullptr;
    --*task.running;
}

} // namespace

class TaskPool::Impl {
public:
    explicit Impl(uint32_t maxThreads)
        : pool(CreateThreadpool(nullptr)), group(CreateThreadpoolCleanupGroup())
    {
        InitializeThreadpoolEnvironment(&environment);
        if (pool) {
            if (maxThreads > 0) // else the system's default
                SetThreadpoolThreadMaximum(pool, maxThreads);
            SetThreadpoolCallbackPool(&environment, pool);
        }
        if (group)
            SetThreadpoolCallbackCleanupGroup(&environment, group, nullptr);
    }

    ~Impl()
    {
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
        Task *task = new (std::nothrow) Task{callback, context, &running};
        PTP_WORK work = task ? CreateThreadpoolWork(RunTask, task, &environment) : nullptr;
        if (!work) {
            delete task;
            return false;
        }
        SubmitThreadpoolWork(work);
        CloseThreadpoolWork(work); // which takes effect when it has run
        return true;
    }

    // The system doesn't tell how many idle threads it keeps.
    size_t Running() const { return running; }

private:
    const PTP_POOL pool;
    const PTP_CLEANUP_GROUP group;
    TP_CALLBACK_ENVIRON environment{};
    std::atomic<size_t> running{0};
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

TaskPool::BlockingSection::BlockingSection()
{
    if (currentInstance)
        CallbackMayRunLong(currentInstance);
    currentInstance = nullptr;
}

TaskPool::BlockingSection::~BlockingSection() = default;

} // namespace fodr::platform
