#include "runtime/OVThread.h"

#include "EndThread.h"
#include "runtime/CapturedLog.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace fodr {
namespace {

using testing::ElementsAre;
using Body = std::function<bool(OVThread *)>;

bool CallBody(void *argument, OVThread *thread)
{
    return (*static_cast<Body *>(argument))(thread);
}

class OVThreadTest : public testing::Test {
protected:
    bool Start(Body threadBody, uint32_t intervalMS = 0)
    {
        body = std::move(threadBody);
        return thread->Start(CallBody, &body, intervalMS);
    }
    static std::vector<std::string> Lines() { return CapturedLog::LinesWithoutIds(); }

    CapturedLog log{LOG_LEVEL_DEBUG};
    Body body;
    std::unique_ptr<OVThread> thread = std::make_unique<OVThread>("worker");
    OVEvent go{true, false};
};

TEST_F(OVThreadTest, CallsOverAndOverUntilItIsStopped)
{
    EXPECT_FALSE(thread->Start(nullptr, nullptr, 0));
    EXPECT_FALSE(thread->ThreadEvent().IsValid());
    EXPECT_TRUE(thread->WaitForStop(0) && thread->Stop(0)); // as it hasn't started
    std::atomic<int> calls{0};
    OVEvent third(true, false);
    ASSERT_TRUE(Start([&](OVThread *self) {
        EXPECT_EQ(thread.get(), self);
        EXPECT_TRUE(self->IsCurrentThread());
        if (++calls == 3)
            third.Set();
        return true;
    }));
    EXPECT_FALSE(thread->IsCurrentThread());
    EXPECT_EQ(OVEvent::kSignalled, third.Wait());
    EXPECT_EQ(OVEvent::kTimeout, thread->ThreadEvent().Wait(0));
    EXPECT_FALSE(thread->WaitForStop(0));
    EXPECT_FALSE(thread->Start(CallBody, &body, 0)); // it runs
    EXPECT_TRUE(thread->Stop());
    EXPECT_EQ(OVEvent::kSignalled, thread->ThreadEvent().Wait(0));
    EXPECT_TRUE(thread->WaitForStop(0));
    EXPECT_THAT(Lines(), ElementsAre("I OVThreadData::Run(): Thread worker started",
                                     "I OVThreadData::Run(): Thread worker exited"));
}

TEST_F(OVThreadTest, StopsInTheMiddleOfALongWaitAndStartsAgain)
{
    for (int round = 0; round < 3; ++round) {
        int calls = 0;
        OVEvent second(true, false), third(true, false);
        ASSERT_TRUE(Start(
            [&](OVThread *self) {
                if (++calls == 1)
                    self->SetNextWaitMS(0); // or the second call would never come
                else
                    (calls == 2 ? second : third).Set();
                return true;
            },
            kInfinite));
        EXPECT_EQ(OVEvent::kSignalled, second.Wait());
        EXPECT_EQ(OVEvent::kTimeout, third.Wait(20)); // the interval holds again
        EXPECT_TRUE(thread->Stop());
        EXPECT_EQ(2, calls);
    }
}

TEST_F(OVThreadTest, EndsByItsCallback)
{
    ASSERT_TRUE(Start([&](OVThread *self) {
        EXPECT_FALSE(self->Stop()); // not for itself, though the request stands
        EXPECT_EQ(OVEvent::kSignalled, self->ExitEvent().Wait(0));
        return go.Wait() != OVEvent::kSignalled;
    }));
    std::thread waiters[3]; // several may wait for its end
    for (std::thread &waiter : waiters)
        waiter = std::thread([&] { EXPECT_TRUE(thread->WaitForStop()); });
    go.Set();
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_THAT(Lines(), ElementsAre("I OVThreadData::Run(): Thread worker started",
                                     "I OVThreadData::Run(): Thread worker exited by callback"));
}

// The log asks it whether it runs, under the very lock that its last line waits for.
TEST_F(OVThreadTest, AnswersWhileItWritesItsLastLine)
{
    static OVEvent lastLine(true, false), mayEnd(true, false);
    SetLogHandler([](const char *, int32_t, const char *format, va_list) {
        if (std::string_view(format) != "Thread %s %s")
            return;
        lastLine.Set();
        mayEnd.Wait();
    });
    ASSERT_TRUE(Start([](OVThread *) { return false; }));
    EXPECT_EQ(OVEvent::kSignalled, lastLine.Wait());
    std::thread waiters[2];
    for (std::thread &waiter : waiters)
        waiter = std::thread([&] { EXPECT_TRUE(thread->WaitForStop()); });
    for (int i = 0; i < 5000; ++i) {
        EXPECT_EQ(OVEvent::kTimeout, thread->ThreadEvent().Wait(0));
        std::this_thread::yield();
    }
    mayEnd.Set();
    for (std::thread &waiter : waiters)
        waiter.join();
}

TEST_F(OVThreadTest, OutlivesItsOwnerUntilTheCallReturns)
{
    for (const bool endedByItself : {false, true}) {
        const CapturedLog ofThisRound(LOG_LEVEL_DEBUG);
        ASSERT_TRUE(Start([&](OVThread *) {
            go.Wait();
            if (endedByItself)
                thread.reset();
            return true;
        }));
        OVEvent ended = thread->ThreadEvent(), exit = thread->ExitEvent();
        if (!endedByItself)
            thread.reset();
        EXPECT_EQ(OVEvent::kTimeout, exit.Wait(0));
        go.Set();
        EXPECT_EQ(OVEvent::kSignalled, ended.Wait());
        EXPECT_EQ(OVEvent::kSignalled, exit.Wait(0));
        EXPECT_THAT(Lines(), testing::UnorderedElementsAre(
                                 "I OVThreadData::Run(): Thread worker started",
                                 "D OVThreadData::MarkDeleted(): Setting deleted flag for thread worker(ID)",
                                 "I OVThreadData::Run(): Thread worker was deleted"));
        thread = std::make_unique<OVThread>("worker");
        go.Reset();
    }
}

TEST_F(OVThreadTest, NoticesAThreadThatDiedInItsCall)
{
    ASSERT_TRUE(Start([&](OVThread *) -> bool {
        go.Wait();
        test::EndThread();
    }));
    EXPECT_FALSE(thread->WaitForStop(0));
    go.Set();
    EXPECT_TRUE(thread->WaitForStop());
    EXPECT_EQ(OVEvent::kSignalled, thread->ExitEvent().Wait(0));
    EXPECT_THAT(Lines(), ElementsAre("I OVThreadData::Run(): Thread worker started",
                                     "D OVThreadData::WaitForStop(): Thread worker(ID) exited unexpectedly"));
    EXPECT_TRUE(Start([](OVThread *) { return false; }));
    EXPECT_TRUE(thread->WaitForStop());
}

} // namespace
} // namespace fodr
