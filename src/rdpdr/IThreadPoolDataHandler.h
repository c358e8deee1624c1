// Where packets are handled, off the channel's thread. Any thread.
#pragma once

namespace fodr {

class IThreadPoolDataHandler {
public:
    // Runs callback(context) once, in no order with other tasks. True says only that the task was recorded:
    // should no thread be had for it, it is lost with its context.
    virtual bool SubmitTask(void (*callback)(void *), void *context) = 0;
    // Runs what was submitted to its end. Sources of tasks are stopped before.
    virtual ~IThreadPoolDataHandler() = default;
};

} // namespace fodr
