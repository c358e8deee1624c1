#include "logging/LogWriter.h"

#include "MatchesPattern.h"
#include "logging/LoggerManager.h"
#include "logging/MemorySink.h"
#include "runtime/OVEvent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace fodr {
namespace {

using fodr::test::MatchesPattern;
using test::MemorySink;
using testing::ElementsAre;

constexpr const char *kBanner = "\n***** BATCH MODE ENABLED *****\n\n";

#define LOCAL_STAMP "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"
#define IDS " <[0-9A-F]{4,}> \\[[0-9A-F]{4,}\\] "

// ---- The prefix ----

TEST(LinePrefix, SaysWhenWhoWhereAndHowBad)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    EXPECT_THAT(sink->Prefix("A::B()"), MatchesPattern(LOCAL_STAMP IDS "I A::B\\(\\): "));
    EXPECT_THAT(sink->Prefix("A::B()", LOG_LEVEL_VERBOSE), MatchesPattern(LOCAL_STAMP IDS "V A::B\\(\\): "));
}

TEST(LinePrefix, PartsTheLinesOfDifferentThreads)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    const std::string separator(39, '-');
    const std::string first = sink->Prefix("F()");
    const std::string second = sink->Prefix("F()");
    EXPECT_FALSE(first.starts_with("-")) << first;
    EXPECT_EQ(first.size(), second.size());
    std::string other;
    std::thread([&] { other = sink->Prefix("F()"); }).join();
    EXPECT_EQ(other.substr(0, 40), separator + "\n");
    EXPECT_FALSE(other.substr(40).starts_with("-")) << other;
    // What goes on without a name lines up with the whole prefix before, separator included.
    EXPECT_EQ(sink->Prefix(""), std::string(other.size(), ' '));
    EXPECT_EQ(sink->Prefix(nullptr), std::string(other.size(), ' '));
    EXPECT_EQ(sink->Prefix("F()").substr(0, 40), separator + "\n");
}

// ---- Delivery ----

TEST(LogWriterDelivery, WritesDirectlyWithoutBuffering)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    EXPECT_TRUE(sink->Put("one"));
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", ")"));
}

TEST(LogWriterDelivery, DrainsTheQueueInOneBatch)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    sink->SetBuffering(true);
    for (const char *text : {"one", "two\n", "three"})
        EXPECT_TRUE(sink->Put(text));
    EXPECT_THAT(sink->Take(), ElementsAre());
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", "two\n", "three\n", ")"));
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre());
    sink->Put("four");
    sink->SetBuffering(false); // writes what is left
    EXPECT_THAT(sink->Take(), ElementsAre("(", "four\n", ")"));
    sink->Put("five");
    EXPECT_THAT(sink->Take(), ElementsAre("(", "five\n", ")"));
}

TEST(LogWriterDelivery, CallersGoOnPushingDuringAWrite)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    sink->SetBuffering(true);
    sink->Put("one");
    sink->OnWrite([&](const LogMessage &) {
        sink->OnWrite(nullptr);
        std::thread([&] { sink->Put("meanwhile"); }).join();
    });
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", ")"));
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "meanwhile\n", ")"));
}

TEST(LogWriterDelivery, ReportsWhatWasDroppedBehindTheNextLines)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    sink->SetBuffering(true);
    sink->SetEnabled(false);
    EXPECT_FALSE(sink->Put("lost"));
    EXPECT_FALSE(sink->Put("lost"));
    sink->SetEnabled(true);
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre()) << "an empty queue reports nothing";
    sink->dropText = "unwanted";
    EXPECT_FALSE(sink->Put("unwanted"));
    // Each of the two queues has a count of its own; the polls in between changed queues.
    sink->dropText.clear();
    sink->Put("one");
    sink->Poll();
    sink->Put("two");
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", "\n******* Dropped 1 messages *******\n\n", ")", "(",
                                          "two\n", "\n******* Dropped 2 messages *******\n\n", ")"));
}

TEST(LogWriterDelivery, OverflowMakesTheLoggingThreadsWriteForGood)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    sink->SetBuffering(true);
    sink->SetQueueSize(50);
    auto put = [&](int count) {
        for (int i = 0; i < count; ++i)
            EXPECT_TRUE(sink->Put("x"));
        return sink->Take();
    };
    EXPECT_THAT(put(49), ElementsAre());
    EXPECT_THAT(put(1), ElementsAre(kBanner)) << "ahead of what is queued";
    EXPECT_THAT(put(49), ElementsAre());
    EXPECT_EQ(102u, put(1).size()) << "the hundredth takes all with it";
    EXPECT_THAT(put(99), ElementsAre());
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre()) << "the poll thread is out of it";
    sink->Close();
    const std::vector<std::string> rest = sink->Take();
    EXPECT_EQ(102u, rest.size());
    EXPECT_EQ("close", rest.back());
}

TEST(LogWriterDelivery, BatchModeWaitsForAPollThatIsUnderWay)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    sink->SetBuffering(true);
    sink->SetQueueSize(2);
    sink->Put("first");
    sink->OnWrite([&](const LogMessage &) {
        sink->OnWrite(nullptr);
        sink->Put("second");
        sink->Put("third"); // the limit
    });
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "first\n", ")"));
    sink->Put("fourth");
    EXPECT_THAT(sink->Take(), ElementsAre(kBanner));
}

TEST(LogWriterDelivery, CloseWritesAllAndDropsWhatComesThen)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    sink->initMessage = "hello\n";
    sink->closeMessage = "bye\n";
    ASSERT_TRUE(sink->Init());
    EXPECT_TRUE(sink->IsOpen());
    EXPECT_TRUE(sink->Init());
    EXPECT_THAT(sink->Take(),
                ElementsAre(MatchesPattern(LOCAL_STAMP IDS "A LogWriter::Init\\(\\): hello\n")));
    sink->SetBuffering(true);
    sink->Put("one");
    sink->OnWrite([&](const LogMessage &) { EXPECT_FALSE(sink->Put("late")); });
    sink->Close();
    sink->OnWrite(nullptr);
    EXPECT_FALSE(sink->IsOpen());
    EXPECT_THAT(sink->Take(),
                ElementsAre("(", "one\n", ")",
                            MatchesPattern(LOCAL_STAMP IDS "A LogWriter::Close\\(\\): bye\n"), "close"));
    LoggerManager::Instance().Shutdown();
}

TEST(LogWriterDelivery, AWriterThatCantOpenStaysClosed)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    sink->opens = false;
    EXPECT_FALSE(sink->Init());
    EXPECT_FALSE(sink->IsOpen());
}

// The wait for the poll thread happens under the mutex that the poll thread needs.
TEST(LogWriterDelivery, SwitchingOffWaitsForTheWriteUnderWay)
{
    const RCPtr<MemorySink> sink = new MemorySink;
    OVEvent writing(true, false);
    OVEvent goOn(true, false);
    sink->OnWrite([&](const LogMessage &) {
        writing.Set();
        goOn.Wait();
        OVMutexLock hold(LoggerMutex()); // as a sink that makes a line of its own
    });
    ASSERT_TRUE(sink->Init());
    sink->SetBuffering(true);
    sink->Put("one");
    writing.Wait();
    std::thread switching([&] { sink->SetEnabled(false); });
    goOn.Set();
    switching.join();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", ")"));
    sink->Close();
    LoggerManager::Instance().Shutdown();
}

// ---- The record ----

TEST(LogMessage, EndsWithOneNewline)
{
    EXPECT_STREQ("a\n", LogMessage::Create(LOG_LEVEL_INFO, "a", 1)->Text());
    EXPECT_STREQ("a\n", LogMessage::Create(LOG_LEVEL_INFO, "a\n", 2)->Text());
    EXPECT_STREQ("\n", LogMessage::Create(LOG_LEVEL_INFO, "", 0)->Text());
    const RCPtr<LogMessage> textless = new LogMessage(LOG_LEVEL_INFO);
    EXPECT_STREQ("Failed to allocate memory for log message\n", textless->TextToWrite());
}

} // namespace
} // namespace fodr
