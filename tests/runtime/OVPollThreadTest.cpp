#include "runtime/OVPollThread.h"

#include "runtime/CapturedLog.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace fodr {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::Not;

class Item : public OVPollItem {
public:
    using Body = std::function<bool(bool)>;
    Item(const std::string &itemName, Body itemBody) : OVPollItem(itemName), body(std::move(itemBody)) {}
    bool Run(bool timedOut) override { return body(timedOut); }

private:
    const Body body;
};

class PollThread : public testing::Test {
protected:
    // To be declared behind what the items use.
    class Running {
    public:
        explicit Running(RCPtr<OVPollThread> started) : thread(std::move(started))
        {
            thread->StartScheduler();
        }
        ~Running() { thread->StopScheduler(); }

    private:
        const RCPtr<OVPollThread> thread;
    };

    RCPtr<Item> Add(const std::string &name, OVEvent *event, int32_t timeoutMS, Item::Body body)
    {
        RCPtr<Item> item(new Item(name, std::move(body)));
        EXPECT_TRUE(poll->AddItem(item, event, timeoutMS));
        return item;
    }
    // What was ready to run before this call has run.
    void Settle()
    {
        OVEvent ready(false, true);
        OVEvent ran(true, false);
        for (int i = 0; i < 2; ++i) { // the lowest of several events is first; twice, all were
            RCPtr<Item> last = Add("last", &ready, -1, [&](bool) {
                ran.Set();
                return false;
            });
            ran.Wait();
            last->Remove(true);
            ready.Set();
            ran.Reset();
        }
    }

    OVMutex shared;
    RCPtr<OVPollThread> poll{new OVPollThread("test")};
};

TEST_F(PollThread, RunsItemsInTurnByEventAndByTime)
{
    std::string order;
    OVEvent fired(true, true);
    OVEvent done(true, false);
    const auto append = [&](char letter) {
        return [&, letter](bool timedOut) {
            if (order.size() == 24) // the test is reading it
                return false;
            order += letter;
            order += timedOut ? 't' : 'e';
            if (order.size() == 24)
                done.Set();
            return order.size() < 24;
        };
    };
    Add("a", &fired, -1, append('a'));
    Add("b", &fired, 0, append('b'));
    Add("c", &fired, -1, append('c'));
    RCPtr<Item> never = Add("never", nullptr, -1, append('n'));
    const Running scheduler(poll);
    done.Wait();
    EXPECT_EQ(order, "aebeceaebeceaebeceaebece");
    Settle();
    EXPECT_EQ(never->GetPollThread(), poll); // it stays, unserved
    EXPECT_EQ(order.find('n'), std::string::npos);
}

TEST_F(PollThread, OfTwoThatAreDueTheEarlierInLineIsFirst)
{
    std::string order;
    OVEvent done(true, false);
    for (const char letter : {'x', 'y'}) {
        Add(std::string(1, letter), nullptr, 0, [&, letter](bool timedOut) {
            if (order.size() == 6)
                return false;
            order += timedOut ? letter : '!';
            if (order.size() == 6)
                done.Set();
            return order.size() < 6;
        });
    }
    const Running scheduler(poll);
    done.Wait();
    // Each is behind the other after its run, and overdue by more than one that has just run.
    EXPECT_EQ(order.substr(0, 2), "xy");
    EXPECT_EQ(order.find('!'), std::string::npos);
}

TEST_F(PollThread, DisablingIsCountedAndAPausedItemWaits)
{
    std::atomic<int> runs{0};
    OVEvent fired(false, false);
    OVEvent ran(false, false);
    RCPtr<Item> item = Add("i", &fired, -1, [&](bool) {
        ++runs;
        ran.Set();
        return true;
    });
    const Running scheduler(poll);
    item->Disable(false);
    item->Disable(true);
    fired.Set();
    EXPECT_FALSE(item->Enable());
    Settle();
    EXPECT_EQ(runs, 0);
    EXPECT_TRUE(item->Enable()); // what fired meanwhile isn't lost
    ran.Wait();

    item->Pause();
    fired.Set();
    Settle();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(fired.Wait(0), OVEvent::kTimeout); // its event was taken all the same
    item->Resume();
    fired.Set();
    ran.Wait();
    EXPECT_EQ(runs, 2);
}

TEST_F(PollThread, WhoWaitsForARunningItemGivesTheLockAwayAndGetsItBack)
{
    poll->SetLock(&shared);
    OVEvent fired(false, true);
    OVEvent running(true, false);
    OVEvent goOn(true, false);
    std::atomic<bool> over{false};
    RCPtr<Item> item = Add("slow", &fired, -1, [&](bool) {
        running.Set();
        goOn.Wait();
        { // as a writer of a log does
            OVMutexLock held(shared);
            over = true;
        }
        return true;
    });
    const Running scheduler(poll);
    running.Wait();
    std::thread other([&] {
        OVMutexLock first(shared);
        OVMutexLock second(shared);
        fired.Set();
        item->Disable(true);
        EXPECT_TRUE(over);
        std::thread([&] { EXPECT_FALSE(shared.Acquire(0)); }).join(); // held again
    });
    goOn.Set();
    other.join();
    EXPECT_TRUE(shared.Acquire(kInfinite)); // and given back twice
    shared.Release();
    EXPECT_TRUE(item->Enable());
}

TEST_F(PollThread, StopsForACallerThatHoldsTheLock)
{
    poll->SetLock(&shared);
    OVEvent running(true, false);
    OVEvent never(true, false);
    RCPtr<Item> item = Add("i", &never, 0, [&](bool timedOut) {
        EXPECT_TRUE(timedOut);
        running.Set();
        return false;
    });
    poll->StartScheduler();
    running.Wait();
    const OVMutexLock first(shared);
    const OVMutexLock second(shared);
    poll->StopScheduler();
    EXPECT_FALSE(poll->IsRunning());
    EXPECT_FALSE(item->GetPollThread());
    std::thread([&] { EXPECT_FALSE(shared.Acquire(0)); }).join(); // held again
    poll->StopScheduler();
}

TEST_F(PollThread, AnEventMayGoWithItsItem)
{
    const Running scheduler(poll);
    for (int i = 0; i < 100; ++i) {
        OVEvent fired(false, i % 2 == 0);
        RCPtr<Item> item = Add("i", &fired, -1, [](bool) { return true; });
        EXPECT_TRUE(item->Remove(i % 3 == 0));
    }
    poll->RemoveAllItems(true);
}

TEST_F(PollThread, AnItemMayDoAnythingToItselfWithinItsRun)
{
    OVEvent fired(true, true);
    OVEvent done(true, false);
    RCPtr<Item> item;
    item = RCPtr<Item>(new Item("self", [&](bool) {
        item->Disable(true); // waits for nobody
        EXPECT_TRUE(item->Enable());
        poll->WaitForItemToComplete(nullptr);
        EXPECT_TRUE(item->Remove(true));
        EXPECT_FALSE(item->Remove(true));
        done.Set();
        return false; // which has nothing left to remove
    }));
    poll->AddItem(item, &fired, -1);
    const Running scheduler(poll);
    done.Wait();
    poll->RemoveAllItems(true);
    EXPECT_FALSE(item->GetPollThread());
    item = nullptr;
}

TEST_F(PollThread, TheLastReferenceEndsItAndItemsOutliveIt)
{
    OVEvent fired(false, false);
    OVEvent gone(true, false);
    struct Tell {
        OVEvent *event;
        ~Tell() { event->Set(); }
    };
    auto tell = std::make_shared<Tell>(&gone);
    auto up = std::make_shared<OVEvent>(false, false);
    RCPtr<Item> outlives = Add("outlives", nullptr, -1, [](bool) { return true; });
    {
        RCPtr<Item> waker = Add("waker", &fired, -1, [tell, up](bool) {
            up->Set();
            return true;
        });
    }
    tell.reset();
    poll->StartScheduler();
    fired.Set();
    up->Wait(); // it holds its own reference now
    CapturedLog log(LOG_LEVEL_INFO);
    poll = nullptr;
    fired.Set();
    gone.Wait(); // the thread has let go of its items
    EXPECT_THAT(CapturedLog::Lines(), Contains("I OVPollThread::Scheduler(): test: I'm the last reference"));
    EXPECT_FALSE(outlives->GetPollThread());
    outlives->SetTimeoutMS(5, true); // which reaches nobody
    EXPECT_FALSE(outlives->Remove(true));
}

TEST_F(PollThread, WhatGoesWrongIsLogged)
{
    CapturedLog log(LOG_LEVEL_DEBUG);
    RCPtr<OVPollThread> other(new OVPollThread("other"));
    RCPtr<Item> item = Add("i", nullptr, -1, [](bool) { return true; });
    EXPECT_TRUE(poll->AddItem(item, nullptr, 90000)); // again is no harm
    item->Pause();
    poll->LogAllItems(LOG_LEVEL_DEBUG);
    EXPECT_FALSE(poll->AddItem(nullptr, nullptr, -1));
    EXPECT_FALSE(other->AddItem(item, nullptr, -1));
    EXPECT_FALSE(other->RemoveItem(item, true));
    EXPECT_FALSE(poll->RemoveItem(nullptr, false));
    EXPECT_TRUE(poll->RemoveItem(item, true));
    EXPECT_FALSE(poll->RemoveItem(item, true));
    poll->LogAllItems(LOG_LEVEL_DEBUG);
    std::vector<std::string> lines = CapturedLog::LinesWithoutIds();
    std::erase_if(lines, [](const std::string &line) { // the other's making; an earlier thread's end, late
        return line.find(" OVPollThread::OVPollThread") != std::string::npos ||
               line.find(" OVThreadData::") != std::string::npos;
    });
    EXPECT_THAT(lines, ElementsAre("D OVPollThread::AddItem(): test: Item i added",
                                   "D OVPollThread::AddItem(): test: Item i added",
                                   "D OVPollThread::LogAllItems(): test - 1 item\n",
                                   MatchesRegex("D OVPollThread::LogAllItems\\(\\):    i - "
                                                "timeout\\(0:01:30.000\\)  elapsed\\(.*s\\)  "
                                                "paused\\(TRUE\\)  event\\(FALSE\\)  disabled\\(0\\)\n"),
                                   "D OVPollThread::AddItem(): test: item == NULL",
                                   "D OVPollThread::AddItem(): other: Item i already belongs to ID",
                                   "D OVPollThread::RemoveItem(): other: Item i belongs to ID",
                                   "D OVPollThread::RemoveItem(): test: item == NULL",
                                   "D OVPollThread::RemoveItem(): test: Item i removed",
                                   "D OVPollThread::LogAllItems(): test - 0 items\n"));
}

TEST_F(PollThread, AnIdleThreadIsNotWoken)
{
    OVEvent fired(false, false);
    Add("idle", &fired, -1, [](bool) { return true; });
    CapturedLog log(LOG_LEVEL_INFO);
    poll->SetLogLevel(LOG_LEVEL_INFO);
    poll->StartScheduler();
    poll->StopScheduler();
    const std::vector<std::string> lines = CapturedLog::Lines();
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "I OVPollThread::Scheduler(): test: Waiting for INFINITE"), 1);
    EXPECT_THAT(lines, Contains("I OVPollThread::LogAllItems(): test - 1 item\n"));
    EXPECT_THAT(lines, Contains("I OVPollThread::Scheduler(): test: Exit event signaled"));
    EXPECT_THAT(lines, Not(Contains("I OVPollThread::Scheduler(): test: Error while waiting")));
}

} // namespace
} // namespace fodr
