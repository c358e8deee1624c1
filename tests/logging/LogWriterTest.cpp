#include "logging/LogWriter.h"

#include "MatchesPattern.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "logging/MemorySink.h"
#include "runtime/CapturedLog.h"
#include "runtime/OVEvent.h"

#include <array>
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>
#include <thread>

namespace {

thread_local int allocationsToRefuse = 0;

} // namespace

// Of those that say that they can be refused.
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    if (allocationsToRefuse > 0) {
        --allocationsToRefuse;
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

namespace fodr {
namespace {

using test::MatchesPattern;
using test::MemorySink;
using test::PrefixOf;
using testing::ElementsAre;
using testing::EndsWith;

constexpr const char *kForever = "Waiting for INFINITE";
constexpr const char *kForTheWriter = "(LogWriter)";
constexpr const char *kBanner = "\n***** BATCH MODE ENABLED *****\n\n";

class LogWriterTest : public testing::Test {
protected:
    LogWriterTest() { sink->SetBuffering(true); }
    ~LogWriterTest() override { LoggerManager::Instance().Shutdown(); }
    // A line at level ALWAYS or INFO, as a pattern.
    static std::string Line(const std::string &levelNameAndText)
    {
        return "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} <[0-9A-F]{4,}> "
               "\\[[0-9A-F]{4,}\\] " +
               levelNameAndText;
    }
    // What the poll thread writes when its time has come.
    std::vector<std::string> Drain()
    {
        sink->Poll();
        return sink->Take();
    }

    const RCPtr<MemorySink> sink = new MemorySink;
};

TEST_F(LogWriterTest, ThePrefixSaysWhenWhoWhereAndHowBad)
{
    const std::string separator = std::string(39, '-') + "\n";
    const std::string first = PrefixOf(*sink, "A::B()");
    EXPECT_THAT(first, MatchesPattern(Line("I A::B\\(\\): ")));
    EXPECT_THAT(PrefixOf(*sink, "F()", LOG_LEVEL_VERBOSE), MatchesPattern(Line("V F\\(\\): ")));
    std::string other;
    std::thread([&] { other = PrefixOf(*sink, "F()"); }).join();
    EXPECT_THAT(other, MatchesPattern(separator + Line("I F\\(\\): ")));
    // What goes on without a name lines up with the whole prefix before, separator included.
    EXPECT_EQ(PrefixOf(*sink, ""), std::string(other.size(), ' '));
    EXPECT_EQ(PrefixOf(*sink, nullptr), std::string(other.size(), ' '));
    EXPECT_THAT(PrefixOf(*sink, "F()"), MatchesPattern(separator + Line("I F\\(\\): ")));
}

// ---- Delivery ----

TEST_F(LogWriterTest, DrainsTheQueueInOneBatch)
{
    for (const char *text : {"one", "two\n", "three"})
        EXPECT_TRUE(sink->Put(text));
    EXPECT_THAT(sink->Take(), ElementsAre());
    EXPECT_THAT(Drain(), ElementsAre("(", "one\n", "two\n", "three\n", ")"));
    EXPECT_THAT(Drain(), ElementsAre());
    sink->Put("four");
    sink->SetBuffering(false); // writes what is left, and directly from then on
    EXPECT_THAT(sink->Take(), ElementsAre("(", "four\n", ")"));
    EXPECT_TRUE(sink->Put("five"));
    EXPECT_THAT(sink->Take(), ElementsAre("(", "five\n", ")"));
}

TEST_F(LogWriterTest, ReportsWhatWasDroppedBehindTheNextLines)
{
    sink->SetEnabled(false);
    EXPECT_FALSE(sink->Put("lost"));
    EXPECT_FALSE(sink->Put("lost"));
    sink->SetEnabled(true);
    EXPECT_THAT(Drain(), ElementsAre()) << "an empty queue reports nothing";
    sink->dropText = "unwanted";
    EXPECT_FALSE(sink->Put("unwanted"));
    // Each of the two queues has a count of its own; the polls in between changed queues.
    sink->dropText.clear();
    sink->Put("one");
    sink->Poll();
    sink->Put("two");
    EXPECT_THAT(Drain(), ElementsAre("(", "one\n", "\n******* Dropped 1 messages *******\n\n", ")", "(",
                                     "two\n", "\n******* Dropped 2 messages *******\n\n", ")"));
}

TEST_F(LogWriterTest, OverflowMakesTheLoggingThreadsWriteForGood)
{
    sink->SetQueueSize(50);
    const auto put = [&](int count) {
        for (int i = 0; i < count; ++i)
            EXPECT_TRUE(sink->Put("x"));
        return sink->Take();
    };
    EXPECT_THAT(put(49), ElementsAre());
    EXPECT_THAT(put(1), ElementsAre(kBanner)) << "ahead of what is queued";
    EXPECT_THAT(put(49), ElementsAre());
    EXPECT_EQ(102u, put(1).size()) << "the hundredth takes all with it";
    EXPECT_THAT(put(99), ElementsAre());
    EXPECT_THAT(Drain(), ElementsAre()) << "the poll thread is out of it";
    sink->Close();
    const std::vector<std::string> rest = sink->Take();
    EXPECT_EQ(102u, rest.size());
    EXPECT_EQ("close", rest.back());
}

TEST_F(LogWriterTest, BatchModeWaitsForAPollThatIsUnderWay)
{
    sink->SetQueueSize(2);
    sink->Put("first");
    sink->OnWrite([&](const LogMessage &) {
        sink->OnWrite(nullptr);
        sink->Put("second");
        sink->Put("third"); // the limit
    });
    EXPECT_THAT(Drain(), ElementsAre("(", "first\n", ")"));
    sink->Put("fourth");
    EXPECT_THAT(sink->Take(), ElementsAre(kBanner));
}

TEST_F(LogWriterTest, CloseWritesAllAndDropsWhatComesThen)
{
    sink->opens = false;
    EXPECT_FALSE(sink->Init() || sink->IsOpen());
    sink->opens = true;
    sink->initMessage = "hello\n";
    sink->closeMessage = "bye\n";
    EXPECT_TRUE(sink->Init() && sink->IsOpen() && sink->Init());
    sink->LeavePollThread();
    EXPECT_THAT(sink->Take(), ElementsAre(MatchesPattern(Line("A LogWriter::Init\\(\\): hello\n"))));
    sink->Put("one");
    sink->OnWrite([&](const LogMessage &) { EXPECT_FALSE(sink->Put("late")); });
    sink->Close();
    sink->OnWrite(nullptr);
    EXPECT_FALSE(sink->IsOpen());
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", ")",
                                          MatchesPattern(Line("A LogWriter::Close\\(\\): bye\n")), "close"));
}

// The wait for the poll thread happens under the mutex that the poll thread needs.
TEST_F(LogWriterTest, SwitchingOffWaitsForTheWriteUnderWay)
{
    OVEvent writing(true, false), goOn(true, false);
    std::atomic<bool> over{false};
    sink->OnWrite([&](const LogMessage &) {
        writing.Set();
        goOn.Wait();
        OVMutexLock hold(LoggerMutex()); // as a sink that makes a line of its own
        over = true;
    });
    ASSERT_TRUE(sink->Init());
    sink->Put("one");
    writing.Wait();
    {
        OVMutexLock held(LoggerMutex());
        goOn.Set();
        sink->SetEnabled(false);
        EXPECT_TRUE(over);
    }
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", ")"));
    sink->Close();
}

// ---- When the poll thread is woken ----

class IdleWriter : public LogWriterTest {
protected:
    // What a thread that looks at the writer now says that it waits for.
    std::string Wait()
    {
        const CapturedLog log(LOG_LEVEL_INFO);
        poll->StartScheduler();
        poll->StopScheduler();
        std::string last;
        for (const std::string &line : CapturedLog::Lines()) {
            if (line.find("Waiting for") != std::string::npos)
                last = line;
        }
        return last;
    }

    const RCPtr<OVPollThread> poll = LoggerManager::Instance().GetPollThread();
};

TEST_F(IdleWriter, IsWaitedForWhileItHoldsLinesAndNoLonger)
{
    ASSERT_TRUE(sink->Init());
    poll->StopScheduler(); // it stands still but for the looks
    poll->SetLogLevel(LOG_LEVEL_INFO);
    EXPECT_EQ(1000, sink->PollItem()->GetTimeoutMS());
    EXPECT_THAT(Wait(), EndsWith(kForever));
    sink->Put("one");
    sink->Put("two");
    EXPECT_THAT(Wait(), EndsWith(kForTheWriter));
    sink->OnWrite([&](const LogMessage &) {
        sink->OnWrite(nullptr);
        std::thread([&] { sink->Put("meanwhile"); }).join();
    });
    EXPECT_THAT(Drain(), ElementsAre("(", "one\n", "two\n", ")"));
    EXPECT_THAT(Wait(), EndsWith(kForTheWriter)) << "a line that came during the writing";
    EXPECT_THAT(Drain(), ElementsAre("(", "meanwhile\n", ")"));
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

// ---- No memory for the record of a line ----

TEST(ShortMemory, TheNextWriterGetsTheWholeLine)
{
    const RCPtr<Logger> logger = new Logger("short", "short");
    const RCPtr<test::MemorySink> first = new test::MemorySink(LOG_WRITER_DEBUG);
    const RCPtr<test::MemorySink> second = new test::MemorySink(LOG_WRITER_STDERR);
    ASSERT_TRUE(logger->AddWriter(first) && logger->AddWriter(second) && logger->Start());
    first->TakeText();
    second->TakeText();
    allocationsToRefuse = 1;
    LogWriteTo(logger, "F()", LOG_LEVEL_INFO, "%d %s %d %s", 1, "two", 3, "four");
    EXPECT_EQ(0, allocationsToRefuse);
    EXPECT_EQ("", first->TakeText());
    EXPECT_THAT(second->TakeText(), testing::EndsWith(" F(): 1 two 3 four\n"));
    logger->Stop();
    LoggerManager::Instance().Shutdown();
}

} // namespace
} // namespace fodr
