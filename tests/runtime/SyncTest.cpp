#include "AtOnce.h"
#include "MatchesPattern.h"
#include "platform/Threads.h"
#include "runtime/CapturedLog.h"
#include "runtime/FreeElsewhere.h"
#include "runtime/OVEvent.h"
#include "runtime/OVMutex.h"
#include "runtime/OVTimer.h"
#include "runtime/StringUtils.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

// Releases by the wrong thread are what is tested here.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "report_mutex_bugs=0";
}

namespace fodr {
namespace {

using test::IsFreeElsewhere;

// What the analysis of locks at compile time rightly refuses is wanted here.
bool Lock(OVMutex &mutex, uint32_t timeoutMS = kInfinite) NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.Acquire(timeoutMS);
}
bool Unlock(OVMutex &mutex) NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.Release();
}

class OVMutexTest : public testing::Test {
protected:
    ~OVMutexTest() override { OVMutex::deadlockReportMS = 30000; }
    // A line that names the mutex and a thread behind `text`.
    static auto Line(const std::string &text, uint32_t thread)
    {
        return test::MatchesPattern("W OVMutex::Acquire\\(\\): " + text + " thread " +
                                    StringUtils::Format("0x%04x", thread));
    }
    // Acquires as often on a thread that ends without a release; its id.
    uint32_t AbandonElsewhere(int times)
    {
        uint32_t id = 0;
        std::thread([&] {
            id = platform::CurrentThreadId();
            for (int i = 0; i < times; ++i)
                EXPECT_TRUE(Lock(mutex));
        }).join();
        return id;
    }

    CapturedLog log{LOG_LEVEL_VERBOSE};
    OVMutex mutex;
};

TEST_F(OVMutexTest, IsRecursiveAndOwnedByOneThread)
{
    EXPECT_FALSE(Unlock(mutex));
    EXPECT_TRUE(Lock(mutex) && Lock(mutex, 0) && Unlock(mutex));
    std::thread([&] { // a stranger's release is refused and leaves the count alone
        EXPECT_FALSE(Unlock(mutex));
        EXPECT_FALSE(Lock(mutex, 1));
    })
        .join();
    EXPECT_FALSE(IsFreeElsewhere(mutex));
    EXPECT_TRUE(Unlock(mutex));
    EXPECT_TRUE(IsFreeElsewhere(mutex));
    EXPECT_TRUE(log.Lines().empty());                               // time ran out silently
    EXPECT_TRUE(IsFreeElsewhere(*std::make_unique<OVMutex>(true))); // none starts out owned
}

TEST_F(OVMutexTest, SaysThatItsHolderEnded)
{
    const std::string text = "Acquired abandoned lock 0x[0-9A-F]{16} previously held by";
    const uint32_t first = AbandonElsewhere(2);
    const uint32_t second = AbandonElsewhere(1); // the count begins anew with it
    EXPECT_TRUE(Lock(mutex));
    EXPECT_THAT(log.Lines(), testing::ElementsAre(Line(text, first), Line(text, second)));
    EXPECT_TRUE(Unlock(mutex));
    EXPECT_TRUE(IsFreeElsewhere(mutex));
}

TEST_F(OVMutexTest, ReportsALikelyDeadlockOnceAndKeepsWaiting)
{
    OVMutex::deadlockReportMS = 1;
    EXPECT_TRUE(Lock(mutex));
    std::thread waiter([&] { EXPECT_TRUE(Lock(mutex) && Unlock(mutex)); });
    while (log.Lines().empty())
        std::this_thread::yield();
    EXPECT_TRUE(Unlock(mutex));
    waiter.join();
    EXPECT_THAT(log.Lines(),
                testing::ElementsAre(Line("Possible deadlock trying to acquire lock 0x[0-9A-F]{16} held by",
                                          platform::CurrentThreadId())));
}

TEST_F(OVMutexTest, GuardsExcludeAndLetGo)
{
    int plain = 0;
    auto count = [&] {
        for (int i = 0; i < 3000; ++i) {
            OVMutexLock guard(mutex);
            ++plain;
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(6000, plain);
    OVMutexLock held(mutex);
    {
        OVMutexUnlock unlocked(mutex);
        EXPECT_TRUE(IsFreeElsewhere(mutex));
    }
    EXPECT_FALSE(IsFreeElsewhere(mutex));
}

// The index of the entry, or a negative result.
int32_t WaitForAny(const std::vector<OVEvent *> &events, uint32_t timeoutMS = kInfinite)
{
    return OVEvent::WaitForMultiple(events, false, timeoutMS, false, false);
}
int32_t WaitForAll(const std::vector<OVEvent *> &events, uint32_t timeoutMS = kInfinite)
{
    return OVEvent::WaitForMultiple(events, true, timeoutMS, false, true);
}
bool IsSet(OVEvent &event)
{
    return event.Wait(0) == OVEvent::kSignalled;
}

TEST(OVEvent, FailsWithoutAHandleAndForABadList)
{
    OVEvent none;
    EXPECT_FALSE(none.IsValid() || none.Set() || none.Reset());
    EXPECT_EQ(nullptr, none.Handle());
    EXPECT_EQ(OVEvent::kFailed, none.Wait(0));
    OVEvent set(true, true);
    EXPECT_EQ(OVEvent::kFailed, WaitForAny({&set, &none}, 0));
    EXPECT_EQ(OVEvent::kFailed, WaitForAny({&set, nullptr}, 0));
    EXPECT_EQ(OVEvent::kFailed, WaitForAny({}));
    EXPECT_EQ(OVEvent::kTimeout, OVEvent::WaitForMultiple({}, false, 1, true, false)); // for a message
    EXPECT_EQ(0, WaitForAny(std::vector<OVEvent *>(platform::kMaximumWaitables, &set), 0));
    EXPECT_EQ(OVEvent::kFailed, WaitForAny(std::vector<OVEvent *>(platform::kMaximumWaitables + 1, &set), 0));
}

TEST(OVEvent, StaysSetOrIsTakenByOneWait)
{
    OVEvent manual(true, true), automatic(false, false);
    EXPECT_TRUE(IsSet(manual) && IsSet(manual));
    EXPECT_EQ(OVEvent::kTimeout, automatic.Wait(1));
    EXPECT_TRUE(manual.Reset() && automatic.Set() && automatic.Set());
    EXPECT_FALSE(IsSet(manual));
    EXPECT_TRUE(IsSet(automatic) && !IsSet(automatic)); // two sets make one
    EXPECT_TRUE(automatic.Set() && automatic.Reset() && !IsSet(automatic));
}

TEST(OVEvent, OfSeveralTheLowestIsTakenOrAllOfThem)
{
    OVEvent clear(false, false), low(false, true), high(false, true), manual(true, true);
    EXPECT_EQ(1, WaitForAny({&clear, &low, &high}));
    EXPECT_EQ(OVEvent::kTimeout, WaitForAll({&high, &manual, &low}, 1)); // which takes nothing
    EXPECT_EQ(OVEvent::kTimeout, OVEvent::WaitForMultiple({&low, &clear}, false, 1, true, false));
    EXPECT_TRUE(low.Set());
    EXPECT_EQ(0, WaitForAll({&high, &manual, &low}));
    EXPECT_FALSE(IsSet(low) || IsSet(high));
    EXPECT_TRUE(IsSet(manual));
}

TEST(OVEvent, ASetWakesOneWaiterEachTime)
{
    constexpr int kThreads = 4;
    OVEvent work(false, false), done(false, false);
    std::atomic<int> woken{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            EXPECT_EQ(OVEvent::kSignalled, work.Wait());
            ++woken;
            done.Set();
        });
    }
    for (int i = 1; i <= kThreads; ++i) {
        work.Set();
        EXPECT_EQ(OVEvent::kSignalled, done.Wait());
        EXPECT_EQ(i, woken);
    }
    threads.clear();
    EXPECT_FALSE(IsSet(work));
}

TEST(OVEvent, AWaitThatASetSatisfiedIsNotUndoneByAReset)
{
    OVEvent entered(false, false), pulse(true, false), never(true, false);
    std::atomic<bool> through{false};
    std::jthread waiter([&] {
        entered.Set();
        EXPECT_EQ(0, WaitForAny({&pulse, &never}));
        through = true;
    });
    EXPECT_EQ(OVEvent::kSignalled, entered.Wait());
    while (!through) { // the first pulse that finds the thread waiting lets it through
        pulse.Set();
        pulse.Reset();
        std::this_thread::yield();
    }
}

// Every token that goes in comes out once, through waits for any, waits for all and timeouts at once.
TEST(OVEvent, LosesNoSignalUnderLoad)
{
    constexpr int kRounds = 2000;
    OVEvent tokens[] = {{false, false}, {false, false}}, taken[] = {{false, true}, {false, true}};
    OVEvent stop(true, false);
    std::atomic<int> counts[2]{};
    const auto take = [&](int which) {
        ++counts[which];
        taken[which].Set();
    };
    const auto takeAny = [&](uint32_t timeoutMS) {
        for (int which = 0; which != 2;) {
            which = WaitForAny({&tokens[0], &tokens[1], &stop}, timeoutMS);
            if (which == 0 || which == 1)
                take(which);
        }
    };
    const auto takeAll = [&] {
        while (!IsSet(stop)) {
            if (WaitForAll({&tokens[0], &tokens[1]}, 1) == 0) {
                take(0);
                take(1);
            }
        }
    };
    std::jthread takers[] = {std::jthread(takeAny, kInfinite), std::jthread(takeAny, 1),
                             std::jthread(takeAll)};
    test::AtOnce(2, [&](int which) {
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_EQ(OVEvent::kSignalled, taken[which].Wait());
            tokens[which].Set();
        }
    });
    EXPECT_EQ(0, WaitForAll({&taken[0], &taken[1]}));
    stop.Set();
    for (std::jthread &taker : takers)
        taker.join();
    EXPECT_EQ(kRounds, counts[0]);
    EXPECT_EQ(kRounds, counts[1]);
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
