// Tasks as lambdas, and doors that they wait at.
#pragma once

#include "platform/TaskPool.h"

#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>

namespace fodr::platform {

inline constexpr TaskPool::Patience kNeverStalls{.idle = std::chrono::hours(1),
                                                 .stall = std::chrono::hours(1)};

inline void Launch(TaskPool &pool, std::function<void()> task)
{
    auto *kept = new std::function<void()>(std::move(task));
    ASSERT_TRUE(pool.Submit(
        [](void *context) {
            std::unique_ptr<std::function<void()>> owned(static_cast<std::function<void()> *>(context));
            (*owned)();
        },
        kept));
}

// A door that tasks wait at. A test that should not get through hangs.
class Door {
public:
    void WaitHere()
    {
        std::unique_lock<std::mutex> guard(lock);
        ++waiting;
        changed.notify_all();
        changed.wait(guard, [this] { return open; });
    }
    void Open()
    {
        std::lock_guard<std::mutex> guard(lock);
        open = true;
        changed.notify_all();
    }
    void AwaitArrivals(int count)
    {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [this, count] { return waiting >= count; });
    }

private:
    std::mutex lock;
    std::condition_variable changed;
    int waiting = 0;
    bool open = false;
};

} // namespace fodr::platform
