#include "rdpdr/DataHandler.h"

#include "runtime/LogCall.h"

#include <new>

namespace fodr {

namespace {

struct Task {
    void (*callback)(void *);
    void *context;
};

} // namespace

ThreadPoolDataHandlerImpl::ThreadPoolDataHandlerImpl(uint32_t maxThreads)
    : pool(std::make_unique<platform::TaskPool>(maxThreads))
{}

ThreadPoolDataHandlerImpl::~ThreadPoolDataHandlerImpl()
{
    LOG_DEBUG("Begin waiting for all callbacks to finish.\n");
    pool.reset();
    LOG_DEBUG("Finished waiting for all callbacks to finish.\n");
}

bool ThreadPoolDataHandlerImpl::SubmitTask(void (*callback)(void *), void *context)
{
    Task *task = new (std::nothrow) Task{callback, context};
    if (!task)
        return false;
    LOG_DEBUG("Submitting task %p.\n", static_cast<void *>(task));
    if (pool->Submit(StaticTaskWorker, task))
        return true;
    delete task;
    return false;
}

void ThreadPoolDataHandlerImpl::StaticTaskWorker(void *record)
{
    const std::unique_ptr<Task> task(static_cast<Task *>(record));
    LOG_DEBUG("Executing task %p.\n", record);
    CallWithoutThrowing("ThreadPoolDataHandlerImpl::StaticTaskWorker()",
                        [&] { task->callback(task->context); });
}

} // namespace fodr
