#include "platform/Threads.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace fodr::platform {
namespace {

constexpr bool kManual = true, kAuto = false, kSet = true, kClear = false;

// Events of one test, closed with it.
class SyncWait : public testing::Test {
protected:
    ~SyncWait() override
    {
        for (Waitable handle : handles)
            CloseWaitable(handle);
    }

    Waitable Event(bool manualReset, bool initiallySet)
    {
        handles.push_back(CreateEventObject(manualReset, initiallySet, nullptr));
        return handles.back();
    }

    // The index of the entry, -1 for a timeout, -2 for a failure.
    static int Wait(const std::vector<Waitable> &list, uint32_t timeoutMS, WaitOptions options = {})
    {
        const WaitResult result = WaitForWaitables(list.data(), list.size(), timeoutMS, options);
        return result.status == WaitStatus::Object     ? static_cast<int>(result.index)
               : result.status == WaitStatus::TimedOut ? -1
                                                       : -2;
    }
    static bool IsSet(Waitable event) { return Wait({event}, 0) == 0; }

    std::vector<Waitable> handles;
};

TEST_F(SyncWait, ManualResetStaysSetAndAutoResetIsTaken)
{
    Waitable manual = Event(kManual, kSet), automatic = Event(kAuto, kSet);
    EXPECT_TRUE(IsSet(manual) && IsSet(manual));
    EXPECT_TRUE(IsSet(automatic) && !IsSet(automatic));
    EXPECT_TRUE(ResetEventObject(manual) && SetEventObject(automatic) && SetEventObject(automatic));
    EXPECT_FALSE(IsSet(manual));
    EXPECT_TRUE(IsSet(automatic) && !IsSet(automatic)); // two sets make one
}

TEST_F(SyncWait, AnyGivesTheLowestAndTakesThatAlone)
{
    Waitable clear = Event(kAuto, kClear), low = Event(kAuto, kSet), high = Event(kAuto, kSet);
    EXPECT_EQ(1, Wait({clear, low, high}, 0));
    EXPECT_EQ(2, Wait({clear, low, high}, kWaitForever));
    EXPECT_EQ(-1, Wait({clear, low, high}, 1));
}

TEST_F(SyncWait, AllTakesEverythingOrNothing)
{
    const WaitOptions all{.waitAll = true};
    Waitable first = Event(kAuto, kSet), second = Event(kAuto, kClear), manual = Event(kManual, kSet);
    EXPECT_EQ(-1, Wait({first, manual, second}, 1, all));
    EXPECT_TRUE(SetEventObject(second));
    EXPECT_EQ(0, Wait({first, manual, second}, kWaitForever, all));
    EXPECT_FALSE(IsSet(first) || IsSet(second));
    EXPECT_TRUE(IsSet(manual));
}

TEST_F(SyncWait, BadListsFail)
{
    Waitable event = Event(kManual, kSet);
    EXPECT_EQ(-2, Wait({}, kWaitForever));
    EXPECT_EQ(-1, Wait({}, 1, {.messagesToo = true}));
    EXPECT_EQ(-2, Wait({event, nullptr}, 0));
    EXPECT_EQ(0, Wait(std::vector<Waitable>(kMaximumWaitables, event), 0));
    EXPECT_EQ(-2, Wait(std::vector<Waitable>(kMaximumWaitables + 1, event), 0));
}

TEST_F(SyncWait, ADuplicateKeepsTheObject)
{
    Waitable old = CreateEventObject(kManual, kSet, nullptr);
    Waitable copy = DuplicateWaitable(old);
    EXPECT_TRUE(CloseWaitable(old));
    EXPECT_TRUE(IsSet(copy)); // the object lives on
    EXPECT_TRUE(CloseWaitable(copy) && !CloseWaitable(nullptr));
}

TEST_F(SyncWait, ASetWakesOneThreadOfAnAutoResetEventEachTime)
{
    constexpr int kThreads = 4;
    Waitable work = Event(kAuto, kClear), done = Event(kAuto, kClear);
    std::atomic<int> woken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            EXPECT_EQ(0, Wait({work}, kWaitForever));
            ++woken;
            SetEventObject(done);
        });
    for (int i = 1; i <= kThreads; ++i) {
        SetEventObject(work);
        EXPECT_EQ(0, Wait({done}, kWaitForever));
        EXPECT_EQ(i, woken);
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_FALSE(IsSet(work));
}

TEST_F(SyncWait, AWaitThatASetSatisfiedIsNotUndoneByAReset)
{
    Waitable entered = Event(kAuto, kClear), pulse = Event(kManual, kClear), quit = Event(kManual, kClear);
    std::atomic<bool> through{false};
    std::thread waiter([&] {
        SetEventObject(entered);
        EXPECT_EQ(0, Wait({pulse, quit}, kWaitForever));
        through = true;
    });
    EXPECT_EQ(0, Wait({entered}, kWaitForever));
    while (!through) { // the first pulse that finds the thread waiting lets it through
        SetEventObject(pulse);
        ResetEventObject(pulse);
        std::this_thread::yield();
    }
    waiter.join();
}

// Every token that goes in comes out once, through waits for any, waits for all and timeouts at once.
TEST_F(SyncWait, LosesNoSignalUnderLoad)
{
    constexpr int kRounds = 2000;
    Waitable a = Event(kAuto, kClear), b = Event(kAuto, kClear);
    Waitable takenA = Event(kAuto, kSet), takenB = Event(kAuto, kSet), stop = Event(kManual, kClear);
    auto produce = [&](Waitable taken, Waitable token) {
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_EQ(0, Wait({taken}, kWaitForever));
            SetEventObject(token);
        }
    };
    std::atomic<int> countA{0}, countB{0};
    auto consumeAny = [&](uint32_t timeoutMS) {
        for (;;) {
            switch (Wait({a, b, stop}, timeoutMS)) {
            case 0:
                ++countA;
                SetEventObject(takenA);
                break;
            case 1:
                ++countB;
                SetEventObject(takenB);
                break;
            case 2:
                return;
            }
        }
    };
    auto consumeAll = [&] {
        while (!IsSet(stop)) {
            if (Wait({a, b}, 1, {.waitAll = true}) != 0)
                continue;
            ++countA;
            ++countB;
            SetEventObject(takenA);
            SetEventObject(takenB);
        }
    };
    std::thread consumers[] = {std::thread(consumeAny, kWaitForever), std::thread(consumeAny, 1),
                               std::thread(consumeAll)};
    std::thread producerA(produce, takenA, a), producerB(produce, takenB, b);
    producerA.join();
    producerB.join();
    EXPECT_EQ(0, Wait({takenA, takenB}, kWaitForever, {.waitAll = true}));
    SetEventObject(stop);
    for (std::thread &consumer : consumers)
        consumer.join();
    EXPECT_EQ(kRounds, countA);
    EXPECT_EQ(kRounds, countB);
}

} // namespace
} // namespace fodr::platform
