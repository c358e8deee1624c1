#include "platform/TaskPool.h"

#include "platform/PoolTasks.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace fodr::platform {
namespace {

TEST(TaskPool, RunsEverythingToItsEndBeforeItIsGone)
{
    std::atomic<int> ran = 0;
    {
        TaskPool pool(0);
        std::vector<std::thread> submitters;
        for (int n = 0; n < 4; ++n) {
            submitters.emplace_back([&] {
                for (int i = 0; i < 500; ++i)
                    Launch(pool, [&] { Launch(pool, [&] { ++ran; }); });
            });
        }
        for (std::thread &thread : submitters)
            thread.join();
    }
    EXPECT_EQ(ran, 2000);
}

TEST(TaskPool, SilentBlockersAreNoticed)
{
    Door door;
    TaskPool pool(0, {.idle = std::chrono::hours(1), .stall = std::chrono::milliseconds(1)});
    for (int n = 0; n < 300; ++n)
        Launch(pool, [&] { door.WaitHere(); });
    door.AwaitArrivals(300);
    door.Open();
}

TEST(TaskPool, TheMaximumHoldsForBlockedTasksToo)
{
    std::atomic<int> atOnce = 0;
    std::atomic<int> most = 0;
    std::atomic<int> ran = 0;
    {
        TaskPool pool(2, {.idle = std::chrono::hours(1), .stall = std::chrono::milliseconds(0)});
        for (int n = 0; n < 200; ++n) {
            Launch(pool, [&] {
                TaskPool::BlockingSection blocking;
                const int now = ++atOnce;
                for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
                }
                std::this_thread::yield();
                --atOnce;
                ++ran;
            });
        }
    }
    EXPECT_LE(most, 2);
    EXPECT_EQ(ran, 200);
}

} // namespace
} // namespace fodr::platform
