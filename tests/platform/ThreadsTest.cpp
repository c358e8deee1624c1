// What isn't seen through the classes of the runtime, whose suite tests all the rest.
#include "platform/Threads.h"

#include <functional>
#include <gtest/gtest.h>

// The end of a held mutex is what is tested here.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "report_mutex_bugs=0:report_destroy_locked=0";
}

namespace fodr::platform {
namespace {

TEST(RecursiveMutex, CanBeDestroyedByItsHolder)
{
    using enum RecursiveMutex::Outcome;
    int32_t error = 0;
    RecursiveMutex other;
    {
        RecursiveMutex mutex;
        EXPECT_FALSE(mutex.Release());
        EXPECT_EQ(Acquired, mutex.Acquire(0, &error));
        EXPECT_EQ(Acquired, mutex.Acquire(kWaitForever, &error));
    }
    // The thread's list of held mutexes must not lead into the destroyed one.
    EXPECT_EQ(Acquired, other.Acquire(0, &error));
    EXPECT_TRUE(other.Release());
}

TEST(Threads, AreJoinedByOthersAndSignalTheirEndThemselves)
{
    ThreadRecord *own = nullptr;
    Waitable go = CreateEventObject(true, false, nullptr);
    uint32_t id = 0;
    std::function<void()> body = [&] {
        id = CurrentThreadId();
        SetCurrentThreadName("a name that is longer than the system's");
        ThreadApartment apartment;
        WaitForWaitables(&go, 1, kWaitForever);
        EXPECT_FALSE(JoinThread(own)); // not by itself
    };
    own = StartThread([](void *function) { (*static_cast<std::function<void()> *>(function))(); }, &body);
    ASSERT_NE(nullptr, own);
    Waitable ended = DuplicateThreadHandle(own), copy = DuplicateWaitable(ended);
    EXPECT_FALSE(SetEventObject(ended) || ResetEventObject(ended));
    EXPECT_EQ(WaitStatus::TimedOut, WaitForWaitables(&ended, 1, 0).status);
    SetEventObject(go);
    EXPECT_TRUE(JoinThread(own));
    EXPECT_TRUE(CloseWaitable(ended) && CloseWaitable(go) && !CloseWaitable(nullptr));
    EXPECT_EQ(WaitStatus::Object, WaitForWaitables(&copy, 1, 0).status); // the object lives on
    EXPECT_TRUE(CloseWaitable(copy));
    EXPECT_NE(0u, id);
    EXPECT_NE(CurrentThreadId(), id);
}

} // namespace
} // namespace fodr::platform
