#include "AtOnce.h"
#include "platform/Threads.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

// Releases by the wrong thread and the end of a held mutex are what is tested here.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "report_mutex_bugs=0:report_destroy_locked=0";
}

namespace fodr::platform {
namespace {

using Outcome = RecursiveMutex::Outcome;

void CallFunction(void *argument)
{
    (*static_cast<std::function<void()> *>(argument))();
}

Outcome Try(RecursiveMutex &mutex, uint32_t timeoutMS = 0)
{
    int32_t error = 0;
    return mutex.Acquire(timeoutMS, &error);
}

// What another thread gets; it lets go again.
Outcome TryElsewhere(RecursiveMutex &mutex, uint32_t timeoutMS)
{
    Outcome outcome{};
    std::thread([&] {
        outcome = Try(mutex, timeoutMS);
        if (outcome == Outcome::Acquired)
            mutex.Release();
    }).join();
    return outcome;
}

TEST(RecursiveMutex, IsHeldUntilTheLastRelease)
{
    RecursiveMutex mutex;
    EXPECT_FALSE(mutex.Release());
    EXPECT_EQ(Outcome::Acquired, Try(mutex));
    EXPECT_EQ(Outcome::Acquired, Try(mutex, kWaitForever));
    EXPECT_TRUE(mutex.Release());
    EXPECT_EQ(Outcome::TimedOut, TryElsewhere(mutex, 0));
    EXPECT_EQ(Outcome::TimedOut, TryElsewhere(mutex, 1));
    std::thread([&] { EXPECT_FALSE(mutex.Release()); }).join();
    EXPECT_TRUE(mutex.Release());
    EXPECT_EQ(Outcome::Acquired, TryElsewhere(mutex, kWaitForever));
}

TEST(RecursiveMutex, TellsOfAHolderThatEnded)
{
    for (uint32_t timeoutMS : {0u, 1000u, kWaitForever}) {
        RecursiveMutex mutex;
        std::thread([&] {
            Try(mutex);
            Try(mutex);
        }).join();
        EXPECT_EQ(Outcome::Abandoned, Try(mutex, timeoutMS));
        EXPECT_TRUE(mutex.Release()); // held once, not three times
        EXPECT_FALSE(mutex.Release());
        EXPECT_EQ(Outcome::Acquired, TryElsewhere(mutex, 0));
    }
}

TEST(RecursiveMutex, ExcludesAndWakes)
{
    RecursiveMutex mutex;
    int plain = 0;
    test::AtOnce(4, [&](int which) {
        for (int i = 0; i < 5000; ++i) {
            ASSERT_EQ(Outcome::Acquired, Try(mutex, which < 2 ? kWaitForever : 60000u));
            ++plain;
            mutex.Release();
        }
    });
    EXPECT_EQ(20000, plain);
}

TEST(RecursiveMutex, CanBeDestroyedByItsHolder)
{
    RecursiveMutex other;
    {
        RecursiveMutex mutex;
        Try(mutex);
        Try(mutex);
    }
    // The thread's list of held mutexes must not lead into the destroyed one.
    EXPECT_EQ(Outcome::Acquired, Try(other));
    EXPECT_TRUE(other.Release());
}

TEST(Threads, RunAndAreJoined)
{
    std::atomic<uint32_t> id{0};
    ThreadRecord *own = nullptr;
    Waitable go = CreateEventObject(true, false, nullptr);
    std::function<void()> body = [&] {
        id = CurrentThreadId();
        SetCurrentThreadName("a name that is longer than the system's");
        ThreadApartment apartment;
        WaitForWaitables(&go, 1, kWaitForever);
        EXPECT_FALSE(JoinThread(own)); // not by itself
    };
    own = StartThread(CallFunction, &body);
    ASSERT_NE(nullptr, own);
    Waitable ended = DuplicateThreadHandle(own);
    EXPECT_EQ(WaitStatus::TimedOut, WaitForWaitables(&ended, 1, 0).status);
    EXPECT_FALSE(SetEventObject(ended) || ResetEventObject(ended));
    SetEventObject(go);
    EXPECT_TRUE(JoinThread(own));
    EXPECT_EQ(WaitStatus::Object, WaitForWaitables(&ended, 1, 0).status);
    EXPECT_NE(0u, id);
    EXPECT_NE(CurrentThreadId(), id);
    EXPECT_TRUE(CloseWaitable(ended) && CloseWaitable(go));
}

TEST(Threads, SignalTheirEndAlsoWhenDetached)
{
    Waitable go = CreateEventObject(true, false, nullptr);
    std::function<void()> body = [&] { WaitForWaitables(&go, 1, kWaitForever); };
    std::vector<Waitable> ended;
    for (int i = 0; i < 3; ++i) {
        ThreadRecord *thread = StartThread(CallFunction, &body);
        ASSERT_NE(nullptr, thread);
        ended.push_back(DuplicateThreadHandle(thread));
        EXPECT_TRUE(DetachThread(thread));
    }
    SetEventObject(go);
    EXPECT_EQ(WaitStatus::Object,
              WaitForWaitables(ended.data(), ended.size(), kWaitForever, {.waitAll = true}).status);
    for (Waitable handle : ended)
        CloseWaitable(handle);
    CloseWaitable(go);
}

} // namespace
} // namespace fodr::platform
