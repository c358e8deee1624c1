#include "runtime/OVEvent.h"

#include "platform/Threads.h"
#include "runtime/OVTimer.h"

#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace fodr {
namespace {

TEST(OVEvent, FailsWithoutAHandle)
{
    OVEvent none;
    EXPECT_FALSE(none.IsValid() || none.Set() || none.Reset());
    EXPECT_EQ(nullptr, none.Handle());
    EXPECT_EQ(OVEvent::kFailed, none.Wait(0));
    OVEvent set(true, true);
    EXPECT_EQ(OVEvent::kFailed, OVEvent::WaitForMultiple({&set, &none}, false, 0, false, false));
    EXPECT_EQ(OVEvent::kFailed, OVEvent::WaitForMultiple({&set, nullptr}, false, 0, false, false));
    EXPECT_EQ(OVEvent::kFailed, OVEvent::WaitForMultiple({}, false, kInfinite, false, false));
}

TEST(OVEvent, SetsResetsAndWaits)
{
    OVEvent event(false, false);
    EXPECT_EQ(OVEvent::kTimeout, event.Wait(1));
    EXPECT_TRUE(event.Set());
    EXPECT_EQ(OVEvent::kSignalled, event.Wait());
    EXPECT_TRUE(event.Set() && event.Reset());
    EXPECT_EQ(OVEvent::kTimeout, event.Wait(0));
    std::thread setter([&] { event.Set(); });
    EXPECT_EQ(OVEvent::kSignalled, event.Wait());
    setter.join();
}

TEST(OVEvent, WaitsForSeveral)
{
    OVEvent clear(true, false), set(true, true), taken(false, true);
    EXPECT_EQ(1, OVEvent::WaitForMultiple({&clear, &set, &taken}, false, kInfinite, false, false));
    EXPECT_EQ(OVEvent::kTimeout, OVEvent::WaitForMultiple({&set, &clear}, true, 0, false, false));
    EXPECT_EQ(0, OVEvent::WaitForMultiple({&taken, &set}, true, kInfinite, false, true));
    EXPECT_EQ(OVEvent::kTimeout, OVEvent::WaitForMultiple({&taken, &clear}, false, 1, true, false));
}

TEST(OVEvent, CopiesShareTheObjectAndTheLastOneClosesIt)
{
    void *handle;
    {
        OVEvent original(true, false), other(false, true);
        OVEvent copy(original);
        other = copy;
        OVEvent &self = copy;
        copy = self;
        handle = copy.Handle();
        EXPECT_EQ(handle, other.Handle());
        original = OVEvent();
        EXPECT_TRUE(copy.Set());
        EXPECT_EQ(OVEvent::kSignalled, other.Wait(0));
    }
    EXPECT_FALSE(platform::SetEventObject(handle));
}

TEST(OVEvent, ClosesAHandleOnlyIfItOwnsIt)
{
    void *handle = platform::CreateEventObject(true, false, nullptr);
    OVEvent(handle, false);
    EXPECT_TRUE(platform::SetEventObject(handle));
    OVEvent(handle, true);
    EXPECT_FALSE(platform::SetEventObject(handle));
}

// A clock that the test turns, with a thousand ticks a millisecond.
struct TurnedTimer : OVTimer {
    int64_t GetTicks() const override { return now; }
    int64_t GetFrequency() const override { return 1'000'000; }
    int64_t now = 5'000'000;
};

TEST(OVTimer, ReadsAndThenActsOnTheMode)
{
    TurnedTimer timer;
    timer.Start(OVTimer::kRestart);
    const std::tuple<int64_t, int32_t, int64_t, bool> steps[] = {
        {0, OVTimer::kRead, 0, false},
        {100, OVTimer::kRead, 100, false},
        {50, OVTimer::kLap, 150, false},
        {10, OVTimer::kPause, 10, true},
        {500, OVTimer::kRead, 10, true},
        {500, OVTimer::kPause, 10, true},
        {0, OVTimer::kResume, 10, false},
        {5, OVTimer::kResume, 15, false},
        {5, OVTimer::kPause, 20, true},
        {7, OVTimer::kLap, 20, true},
        {7, OVTimer::kRead, 0, true},
        {1, OVTimer::kRestart, 0, false},
        {3, OVTimer::kRestartPaused, 3, true},
        {9, OVTimer::kResume, 0, false},
        {4, 99, 4, false},
    };
    for (const auto &[passed, mode, elapsed, paused] : steps) {
        timer.now += passed;
        EXPECT_EQ(elapsed, timer.Elapsed(mode)) << timer.now;
        EXPECT_EQ(paused, timer.IsPaused()) << timer.now;
    }
    timer.Start(OVTimer::kRead); // the start is what has elapsed, not the time of the call
    EXPECT_EQ(timer.now - 4, timer.Elapsed(OVTimer::kRead));
}

TEST(OVTimer, RoundsMillisecondsToTheNearest)
{
    TurnedTimer timer;
    timer.Start(OVTimer::kRestart);
    const std::pair<int64_t, int64_t> cases[] = {{0, 0},    {499, 0},  {500, 1},
                                                 {1400, 1}, {1500, 2}, {2'000'000, 2000}};
    const int64_t begin = timer.now;
    for (auto [ticks, milliseconds] : cases) {
        timer.now = begin + ticks;
        EXPECT_EQ(milliseconds, timer.ElapsedMS()) << ticks;
        EXPECT_DOUBLE_EQ(static_cast<double>(ticks) / 1e6, timer.ElapsedSeconds());
    }
}

TEST(OVElapsedTimer, RunsFromTheBeginning)
{
    OVElapsedTimer timer;
    OVEvent never(true, false);
    EXPECT_EQ(OVEvent::kTimeout, never.Wait(3));
    EXPECT_GE(timer.ElapsedMS(OVTimer::kPause), 3);
    EXPECT_EQ(timer.Elapsed(OVTimer::kRead), timer.Elapsed(OVTimer::kRead));
}

} // namespace
} // namespace fodr
