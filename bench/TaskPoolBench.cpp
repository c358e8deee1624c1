// What a task costs on its way through the pool. Compare with the thread hand-over of the same machine, which
// is the floor.
#include "platform/TaskPool.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <condition_variable>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

namespace fodr::platform {
namespace {

// One request at a time, as a caller that waits for each answer makes them.
void TaskPoolSubmitToRun(benchmark::State &state)
{
    TaskPool pool(0);
    std::binary_semaphore ran(0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(pool.Submit(
            [](void *context) { static_cast<std::binary_semaphore *>(context)->release(); }, &ran));
        ran.acquire();
    }
}
BENCHMARK(TaskPoolSubmitToRun)->UseRealTime();

// The floor for it: waking one waiting thread and being woken by it.
void ThreadHandOver(benchmark::State &state)
{
    std::binary_semaphore there(0);
    std::binary_semaphore back(0);
    std::atomic<bool> end = false;
    std::thread partner([&] {
        for (;;) {
            there.acquire();
            if (end)
                return;
            back.release();
        }
    });
    for (auto _ : state) {
        there.release();
        back.acquire();
    }
    end = true;
    there.release();
    partner.join();
}
BENCHMARK(ThreadHandOver)->UseRealTime();

struct Countdown {
    std::atomic<int64_t> left;
    std::binary_semaphore done{0};

    static void Count(void *context)
    {
        auto *self = static_cast<Countdown *>(context);
        if (self->left.fetch_sub(1) == 1)
            self->done.release();
    }
};

// Many requests at once, behind `range(0)` tasks that block.
void TaskPoolBurst(benchmark::State &state)
{
    constexpr int64_t kTasks = 1000;
    TaskPool pool(0);
    struct Gate {
        std::atomic<int64_t> waiting{0};
        std::mutex lock;
        std::condition_variable opened;
        bool open = false;
    } gate;
    for (int64_t n = 0; n < state.range(0); ++n) {
        const bool submitted = pool.Submit(
            [](void *context) {
                TaskPool::BlockingSection blocking;
                auto *held = static_cast<Gate *>(context);
                std::unique_lock<std::mutex> guard(held->lock);
                ++held->waiting;
                held->opened.wait(guard, [held] { return held->open; });
            },
            &gate);
        if (!submitted)
            state.SkipWithError("no thread");
    }
    while (gate.waiting < state.range(0))
        std::this_thread::yield();
    for (auto _ : state) {
        Countdown countdown{.left = kTasks};
        for (int64_t n = 0; n < kTasks; ++n)
            benchmark::DoNotOptimize(pool.Submit(Countdown::Count, &countdown));
        countdown.done.acquire();
    }
    state.SetItemsProcessed(state.iterations() * kTasks);
    state.counters["threads"] = static_cast<double>(pool.ThreadCount());
    std::lock_guard<std::mutex> guard(gate.lock);
    gate.open = true;
    gate.opened.notify_all();
}
BENCHMARK(TaskPoolBurst)->Arg(0)->Arg(1000)->UseRealTime();

} // namespace
} // namespace fodr::platform
