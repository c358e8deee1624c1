#include "runtime/OVPollThread.h"

#include "runtime/CapturedLog.h"
#include "runtime/FreeElsewhere.h"
#include "runtime/PollItems.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace fodr {
namespace {

using Item = test::FunctionItem;
using test::IsFreeElsewhere;
using testing::Contains;
using testing::ElementsAre;
using testing::MatchesRegex;

class PollThread : public testing::Test {
protected:
    RCPtr<Item> Add(const std::string &name, OVEvent *event, int32_t timeoutMS, Item::Body body)
    {
        RCPtr<Item> item(new Item(name, std::move(body)));
        EXPECT_TRUE(poll->AddItem(item, event, timeoutMS));
        return item;
    }
    // Runs items "a", "b", ... with these events and timeouts; who ran, in the order, and why ('e' or 't').
    std::string OrderOfRuns(size_t runs, const std::vector<std::pair<OVEvent *, int32_t>> &items)
    {
        std::string order;
        OVEvent done(true, false);
        char letter = 'a';
        for (auto [event, timeoutMS] : items) {
            Add({letter}, event, timeoutMS, [&, runs, letter](bool timedOut) {
                if (order.size() < 2 * runs)
                    order += {letter, timedOut ? 't' : 'e'};
                if (order.size() == 2 * runs)
                    done.Set();
                return true;
            });
            ++letter;
        }
        poll->StartScheduler();
        done.Wait();
        poll->StopScheduler();
        return order;
    }

    OVMutex shared;
    RCPtr<OVPollThread> poll{new OVPollThread("test")};
};

TEST_F(PollThread, RunsItemsInTurnByEventAndByTime)
{
    OVEvent fired(true, true);
    EXPECT_EQ(OrderOfRuns(12, {{&fired, -1}, {&fired, 0}, {&fired, -1}, {nullptr, -1}}),
              "aebeceaebeceaebeceaebece");
    poll->RemoveAllItems(true);
    // Each is behind the other after its run, and overdue by more than one that has just run.
    const std::string order = OrderOfRuns(6, {{nullptr, 0}, {nullptr, 0}});
    EXPECT_EQ(order.substr(0, 4), "atbt");
    EXPECT_EQ(order.find('e'), std::string::npos);
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
    poll->StartScheduler();
    item->Disable(false);
    item->Disable(true);
    fired.Set();
    EXPECT_FALSE(item->Enable());
    test::Settle(poll);
    EXPECT_EQ(runs, 0);
    EXPECT_TRUE(item->Enable()); // what fired meanwhile isn't lost
    ran.Wait();

    item->Pause();
    fired.Set();
    test::Settle(poll);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(fired.Wait(0), OVEvent::kTimeout); // its event was taken all the same
    item->Resume();
    fired.Set();
    ran.Wait();
    poll->StopScheduler();
}

TEST_F(PollThread, WhoWaitsGivesTheLockAwayAndGetsItBack)
{
    poll->SetLock(&shared);
    OVMutex &again = shared; // the analysis of locks at compile time knows of no second time
    OVEvent never(true, false), running(false, false), goOn(false, false);
    for (const bool removes : {false, true}) {
        std::atomic<bool> over{false};
        RCPtr<Item> item = Add("slow", &never, 0, [&](bool timedOut) {
            EXPECT_TRUE(timedOut);
            running.Set();
            goOn.Wait();
            OVMutexLock held(shared); // as a writer of a log does
            over = true;
            return false;
        });
        poll->StartScheduler();
        running.Wait();
        {
            OVMutexLock first(shared);
            {
                OVMutexLock second(again);
                goOn.Set();
                if (removes)
                    item->Remove(true);
                else
                    item->Disable(true);
                EXPECT_TRUE(over);
                EXPECT_FALSE(item->GetPollThread()); // as its run wanted
                poll->StopScheduler();
                EXPECT_FALSE(poll->IsRunning());
            }
            EXPECT_FALSE(IsFreeElsewhere(shared)); // held again, as often as before
        }
        EXPECT_TRUE(IsFreeElsewhere(shared)); // and given back as often
        EXPECT_TRUE(removes || item->Enable());
    }
}

// Of items that are ready at any time, while somebody waits for the end of one.
TEST_F(PollThread, WhoIsWaitedForIsHeldBackWhateverElseIsEnabled)
{
    poll->SetLock(&shared);
    for (const bool all : {false, true}) {
        OVEvent ready(true, true), running(false, false);
        std::atomic<int> runs{0};
        RCPtr<Item> other;
        RCPtr<Item> item = Add("item", &ready, -1, [&](bool) {
            if (++runs > 1)
                return false;
            running.Set();
            const auto waits =
                Contains(testing::HasSubstr(all ? "Waiting for all items" : "Waiting for item"));
            while (!testing::Value(CapturedLog::Lines(), waits))
                std::this_thread::yield();
            OVMutexLock held(shared); // which who waits has given away now
            for (const auto &[one, heldBack] : {std::pair(item, true), {other, all}}) {
                EXPECT_NE(one->Enable(), heldBack);
                one->Disable(false);
            }
            return true;
        });
        other = Add("other", nullptr, -1, [](bool) { return true; });
        const CapturedLog log(LOG_LEVEL_DEBUG);
        poll->StartScheduler();
        running.Wait();
        {
            OVMutexLock held(shared);
            poll->WaitForItemToComplete(all ? nullptr : item);
            EXPECT_EQ(runs, 1);
            EXPECT_TRUE(item->Enable() && other->Enable()); // and not any longer
            poll->StopScheduler();
        }
        poll->RemoveAllItems(true);
    }
}

TEST_F(PollThread, AnEventMayGoWithItsItem)
{
    poll->StartScheduler();
    for (int i = 0; i < 100; ++i) {
        OVEvent fired(false, i % 2 == 0);
        RCPtr<Item> item = Add("i", &fired, -1, [](bool) { return true; });
        EXPECT_TRUE(item->Remove(i % 3 == 0));
    }
    poll->RemoveAllItems(true);
    poll->StopScheduler();
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
    poll->StartScheduler();
    done.Wait();
    poll->RemoveAllItems(true);
    EXPECT_FALSE(item->GetPollThread());
    poll->StopScheduler();
    item = nullptr;
}

TEST_F(PollThread, TheLastReferenceEndsItAndItemsOutliveIt)
{
    OVEvent fired(false, false), up(false, false);
    RCPtr<Item> outlives = Add("outlives", nullptr, -1, [](bool) { return true; });
    Add("waker", &fired, -1, [&](bool) {
        up.Set();
        return true;
    });
    poll->StartScheduler();
    fired.Set();
    up.Wait(); // it holds its own reference now
    CapturedLog log(LOG_LEVEL_INFO);
    poll = nullptr;
    fired.Set();
    const auto ended = Contains("I OVThreadData::Run(): Thread OVPoll-test was deleted");
    while (!testing::Value(CapturedLog::Lines(), ended))
        std::this_thread::yield();
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
    EXPECT_THAT(CapturedLog::LinesWithoutIds(),
                ElementsAre("D OVPollThread::OVPollThread(): other: OVPollThread ID",
                            "D OVPollThread::AddItem(): test: Item i added",
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
}

} // namespace
} // namespace fodr
