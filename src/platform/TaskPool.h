// A private pool of threads for independent tasks. No order among tasks: each may start as soon as it is
// there.
//
// No task waits behind a blocked one, up to the limits below. A task that is about to block says so with a
// BlockingSection, and another thread takes its place at once; a task that blocks without a word is noticed
// after some milliseconds. A burst of short tasks is served by few threads. Threads that have nothing to do
// end after a while, and a pool at rest wakes nobody.
//
// Submit and BlockingSection are safe from any thread, also from tasks of the pool.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace fodr::platform {

class TaskPool {
public:
    // How patient a pool is. The defaults serve; a test turns them.
    struct Patience {
        std::chrono::milliseconds idle{10000}; // a thread without work ends after this
        std::chrono::milliseconds stall{2};    // tasks that hold their threads longer count as blocked
    };

    // Threads that run tasks in a pool without a maximum of its own, beside those in a BlockingSection. What
    // the system's pool has on Windows.
    static constexpr uint32_t kMostRunning = 500;
    // Tasks in a BlockingSection at once, in all pools together.
    static constexpr uint32_t kMostWaiting = 1000;

    // At most `maxThreads` threads run tasks, blocked ones included; 0 stands for the limits above.
    explicit TaskPool(uint32_t maxThreads);
    TaskPool(uint32_t maxThreads, Patience patience);
    // Runs everything that was submitted to its end. Not to be called from a task of the pool.
    ~TaskPool();
    TaskPool(const TaskPool &) = delete;
    TaskPool &operator=(const TaskPool &) = delete;

    // Runs callback(context) on a thread of the pool. False, and nothing will run, when memory is short or no
    // thread can be had. What belongs to `context` stays the caller's business.
    [[nodiscard]] bool Submit(void (*callback)(void *), void *context);

    // Threads that live at this moment.
    size_t ThreadCount() const;

    // Around an operation of a task that may wait for long. May be nested; does nothing on a thread that
    // isn't a pool's.
    class BlockingSection {
    public:
        BlockingSection();
        ~BlockingSection();
        BlockingSection(const BlockingSection &) = delete;
        BlockingSection &operator=(const BlockingSection &) = delete;

        // False when as many tasks wait as may: the operation must not be begun.
        [[nodiscard]] bool IsGranted() const { return granted; }

    private:
        bool granted;
    };

private:
    class Impl;

    // For the twins: a place among those that wait.
    static bool TakeWaitingPlace()
    {
        if (waitingTasks.fetch_add(1) < kMostWaiting)
            return true;
        --waitingTasks;
        return false;
    }
    static void LeaveWaitingPlace() { --waitingTasks; }
    static inline std::atomic<uint32_t> waitingTasks{0};

    std::unique_ptr<Impl> impl;
};

} // namespace fodr::platform
