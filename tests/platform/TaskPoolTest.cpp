#include "platform/TaskPool.h"

#include "AtOnce.h"
#include "platform/PoolTasks.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace fodr::platform {
namespace {

TEST(TaskPool, RunsEverythingToItsEndBeforeItIsGone)
{
    std::atomic<int> ran = 0;
    {
        TaskPool pool(0);
        test::AtOnce(4, [&](int) {
            for (int i = 0; i < 500; ++i)
                Launch(pool, [&] { Launch(pool, [&] { ++ran; }); });
        });
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

// Silent blockers have no more threads than are allowed to run. Tasks that said that they wait have places of
// their own, and one that gets none is told so instead of waiting.
TEST(TaskPool, ThreadsAreLimitedAndWaitersHaveTheirOwn)
{
    constexpr int kRunning = TaskPool::kMostRunning;
    constexpr int kWaiting = TaskPool::kMostWaiting;
    std::atomic<int> refused = 0;
    std::atomic<int> ran = 0;
    Door waiters, runners;
    {
        TaskPool pool(0, {.idle = std::chrono::hours(1), .stall = std::chrono::milliseconds(1)});
        for (int n = 0; n < kWaiting; ++n) {
            Launch(pool, [&] {
                const TaskPool::BlockingSection outer, inner; // which take one place
                EXPECT_TRUE(outer.IsGranted() && inner.IsGranted());
                waiters.WaitHere();
            });
        }
        waiters.AwaitArrivals(kWaiting);
        for (int n = 0; n < 2 * kRunning; ++n) {
            Launch(pool, [&] {
                const TaskPool::BlockingSection tooMany;
                refused += !tooMany.IsGranted();
                runners.WaitHere();
                ++ran;
            });
        }
        runners.AwaitArrivals(kRunning);
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // in which more threads would be started
        EXPECT_LE(pool.ThreadCount(), static_cast<size_t>(kRunning + kWaiting));
        EXPECT_EQ(ran, 0);
        runners.Open();
        while (ran < 2 * kRunning)
            std::this_thread::yield();
        EXPECT_EQ(refused, 2 * kRunning);
        waiters.Open();
    }
    // The places are free again.
    TaskPool pool(0);
    Door done;
    Launch(pool, [&] {
        const TaskPool::BlockingSection again;
        EXPECT_TRUE(again.IsGranted());
        done.WaitHere();
    });
    done.AwaitArrivals(1);
    done.Open();
}

} // namespace
} // namespace fodr::platform
