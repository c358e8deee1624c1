// When the poll thread is woken for a writer.
#include "logging/LoggerManager.h"
#include "logging/MemorySink.h"
#include "runtime/CapturedLog.h"
#include "runtime/OVEvent.h"

#include <array>
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace fodr {
namespace {

using test::MemorySink;
using testing::ElementsAre;
using testing::EndsWith;

constexpr const char *kForever = "Waiting for INFINITE";
constexpr const char *kForTheWriter = "(LogWriter)";

class IdleWriter : public testing::Test {
protected:
    IdleWriter() { sink->SetBuffering(true); }
    ~IdleWriter() override { LoggerManager::Instance().Shutdown(); }

    // What the thread said last that it waits for.
    static std::string LastWait()
    {
        std::string last;
        for (const std::string &line : CapturedLog::Lines()) {
            if (line.find("Waiting for") != std::string::npos)
                last = line;
        }
        return last;
    }
    // What a thread that looks at the writer now waits for.
    std::string Wait()
    {
        const CapturedLog log(LOG_LEVEL_INFO);
        poll->StartScheduler();
        poll->StopScheduler();
        return LastWait();
    }
    // Opens it on a thread that stands still.
    void Open()
    {
        ASSERT_TRUE(sink->Init());
        poll->StopScheduler();
        poll->SetLogLevel(LOG_LEVEL_INFO);
    }

    const RCPtr<OVPollThread> poll = LoggerManager::Instance().GetPollThread();
    const RCPtr<MemorySink> sink = new MemorySink;
};

TEST_F(IdleWriter, IsWaitedForWhileItHoldsLinesAndNoLonger)
{
    Open();
    EXPECT_EQ(1000, sink->PollItem()->GetTimeoutMS());
    EXPECT_THAT(Wait(), EndsWith(kForever));
    sink->Put("one");
    sink->Put("two");
    EXPECT_THAT(Wait(), EndsWith(kForTheWriter));
    sink->OnWrite([&](const LogMessage &) {
        sink->OnWrite(nullptr);
        sink->Put("meanwhile");
    });
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", "two\n", ")"));
    EXPECT_THAT(Wait(), EndsWith(kForTheWriter)) << "a line that came during the writing";
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "meanwhile\n", ")"));
    EXPECT_THAT(Wait(), EndsWith(kForever));

    sink->dropText = "dropped";
    sink->Put("dropped");
    sink->SetEnabled(false);
    sink->Put("lost");
    EXPECT_THAT(Wait(), EndsWith(kForever)) << "a count alone is not written";
    sink->dropText.clear();
    sink->SetEnabled(true);
    sink->Put("three");
    EXPECT_THAT(Wait(), EndsWith(kForTheWriter));
    sink->SetBuffering(false); // which writes it
    sink->Put("direct");
    EXPECT_THAT(Wait(), EndsWith(kForever));
    sink->SetBuffering(true);
    sink->Poll();
    EXPECT_THAT(Wait(), EndsWith(kForever));
    sink->Put("four");
    EXPECT_THAT(Wait(), EndsWith(kForTheWriter));

    sink->SetQueueSize(2); // which writes it, too
    for (int i = 0; i < 150; ++i)
        sink->Put("batch");
    EXPECT_THAT(Wait(), EndsWith(kForever)) << "the threads that log write";
}

TEST_F(IdleWriter, AnIdleThreadIsNotWoken)
{
    Open();
    const CapturedLog log(LOG_LEVEL_INFO);
    OVEvent written(false, false);
    sink->OnWrite([&](const LogMessage &) { written.Set(); });
    poll->StartScheduler();
    for (const char *text : {"one", "again"}) {
        sink->Put(text);
        EXPECT_EQ(OVEvent::kSignalled, written.Wait(60'000)) << text;
    }
    poll->StopScheduler(); // after the round that followed the writing
    EXPECT_THAT(LastWait(), EndsWith(kForever));
}

// A thread that sleeps although there is a line would keep the line's author waiting.
TEST_F(IdleWriter, EveryLineWakesTheThread)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    struct Author {
        std::atomic<int> written{0};
        OVEvent wakeup{false, false};
    };
    std::array<Author, kThreads> authors;
    sink->OnWrite([&](const LogMessage &message) {
        Author &own = authors[static_cast<size_t>(message.TextToWrite()[0] - '0')];
        ++own.written;
        own.wakeup.Set();
    });
    sink->PollItem()->SetTimeoutMS(0, false); // drained at once
    ASSERT_TRUE(sink->Init());
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&, thread] {
                for (int line = 0; line < kLines; ++line) {
                    sink->Put(std::to_string(thread));
                    Author &own = authors[static_cast<size_t>(thread)];
                    while (own.written == line && own.wakeup.Wait(60'000) == OVEvent::kSignalled) {
                    }
                }
            });
        }
        for (int change = 0; change < 20; ++change) { // which all write what is queued
            sink->SetQueueSize(20000 + static_cast<uint32_t>(change));
            sink->SetBuffering(false);
            sink->SetBuffering(true);
        }
    }
    sink->Close();
    for (const Author &own : authors)
        EXPECT_EQ(kLines, own.written);
}

} // namespace
} // namespace fodr
