// Where packets are handled, off the channel's thread.
#pragma once

#include "platform/TaskPool.h"

#include <cstdint>
#include <memory>

namespace fodr {

// Any thread.
class IThreadPoolDataHandler {
public:
    // Runs callback(context) once, in no order with other tasks. True says only that the task was recorded:
    // should no thread be had for it, it is lost with its context.
    virtual bool SubmitTask(void (*callback)(void *), void *context) = 0;
    // Runs what was submitted to its end. Sources of tasks are stopped before.
    virtual ~IThreadPoolDataHandler() = default;
};

// The data handler on a private pool of the system's. It holds no lock.
class ThreadPoolDataHandlerImpl : public IThreadPoolDataHandler {
public:
    // 0 sets no limit.
    explicit ThreadPoolDataHandlerImpl(uint32_t maxThreads);
    ~ThreadPoolDataHandlerImpl() override;

    bool SubmitTask(void (*callback)(void *), void *context) override;

private:
    static void StaticTaskWorker(void *record);

    std::unique_ptr<platform::TaskPool> pool;
};

} // namespace fodr
