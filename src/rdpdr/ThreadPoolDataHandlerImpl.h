// The data handler on a private pool of the system's. It holds no lock.
#pragma once

#include "platform/TaskPool.h"
#include "rdpdr/IThreadPoolDataHandler.h"

#include <cstdint>
#include <memory>

namespace fodr {

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
