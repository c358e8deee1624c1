#include "platform/PoolTasks.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

namespace fodr::platform {
namespace {

// A queued task must also get a thread when the last running one blocks after the task was queued.
TEST(TaskPool, AnAnnouncementFreesThoseWhoWaitInTheQueue)
{
    Door mayBlock;
    Door blocked;
    std::atomic<bool> ran = false;
    TaskPool pool(0, kNeverStalls);
    const int busy = static_cast<int>(std::max(4U, 2 * std::thread::hardware_concurrency()));
    for (int n = 0; n < busy; ++n) {
        Launch(pool, [&] {
            mayBlock.WaitHere();
            TaskPool::BlockingSection blocking;
            blocked.WaitHere();
        });
    }
    mayBlock.AwaitArrivals(busy);
    Launch(pool, [&] {
        ran = true;
        blocked.Open();
    });
    EXPECT_FALSE(ran);
    mayBlock.Open();
    blocked.AwaitArrivals(1);
}

TEST(TaskPool, ABurstOfShortTasksIsServedByFewThreads)
{
    std::mutex lock;
    std::set<std::thread::id> threads;
    {
        TaskPool pool(0, kNeverStalls);
        for (int n = 0; n < 20000; ++n) {
            Launch(pool, [&] {
                std::lock_guard<std::mutex> guard(lock);
                threads.insert(std::this_thread::get_id());
            });
        }
    }
    EXPECT_LE(threads.size(), std::max(4U, 2 * std::thread::hardware_concurrency()));
}

// The system calls in which the pool's threads sleep, as "number argument1 ... argument6 ...".
std::vector<std::string> SleepsOfPoolThreads()
{
    std::vector<std::string> sleeps;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::string call;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        std::getline(std::ifstream(entry.path() / "syscall"), call);
        if (name.starts_with("fodr-pool"))
            sleeps.push_back(call);
    }
    return sleeps;
}

TEST(TaskPool, AtRestOneThreadRemainsAndNothingWakesIt)
{
    Door door;
    TaskPool pool(0, {.idle = std::chrono::milliseconds(0), .stall = std::chrono::milliseconds(0)});
    for (int n = 0; n < 100; ++n)
        Launch(pool, [&] { door.WaitHere(); });
    door.AwaitArrivals(100);
    EXPECT_GE(pool.ThreadCount(), 100U);
    door.Open();
    while (pool.ThreadCount() > 1)
        std::this_thread::yield();

    if (!std::ifstream("/proc/self/syscall").good())
        GTEST_SKIP() << "this kernel doesn't tell in which system call a thread sleeps";
    // futex(word, operation, value, timeout): both the last thread and the watch come to wait without a
    // timeout.
    const auto sleepsForGood = [](const std::string &call) {
        std::istringstream words(call);
        std::string number, word, operation, value, timeout;
        words >> number >> word >> operation >> value >> timeout;
        return number == std::to_string(SYS_futex) && timeout == "0x0";
    };
    for (;;) {
        const std::vector<std::string> sleeps = SleepsOfPoolThreads();
        if (sleeps.size() == 2 && std::all_of(sleeps.begin(), sleeps.end(), sleepsForGood))
            break;
        std::this_thread::yield();
    }
}

// Ends the process with 0 when every task was refused and none run, whoever else was just submitting one.
[[noreturn]] void SubmitWithoutThreads()
{
    constexpr int kSubmitters = 4;
    std::atomic<int> ready{0}, accepted{0}, ran{0};
    std::atomic<bool> go{false};
    {
        TaskPool pool(0);
        std::vector<std::thread> submitters;
        for (int i = 0; i < kSubmitters; ++i) {
            submitters.emplace_back([&] {
                for (++ready; !go;)
                    std::this_thread::yield();
                for (int n = 0; n < 2000; ++n)
                    accepted +=
                        pool.Submit([](void *count) { ++*static_cast<std::atomic<int> *>(count); }, &ran);
            });
        }
        while (ready < kSubmitters)
            std::this_thread::yield();
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (setuid(65534) != 0)
            _exit(2);
        go = true;
        for (std::thread &submitter : submitters)
            submitter.join();
    }
    _exit(accepted + ran == 0 ? 0 : 1);
}

TEST(TaskPoolDeathTest, SubmitSaysWhenNoThreadCanBeHad)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become a user without a thread to spare";
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(SubmitWithoutThreads(), testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace fodr::platform
