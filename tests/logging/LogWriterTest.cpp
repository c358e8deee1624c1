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

using test::MatchesPattern;
using test::MemorySink;
using test::PrefixOf;
using testing::ElementsAre;

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
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "one\n", "two\n", "three\n", ")"));
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre());
    sink->Put("four");
    sink->SetBuffering(false); // writes what is left, and directly from then on
    EXPECT_THAT(sink->Take(), ElementsAre("(", "four\n", ")"));
    EXPECT_TRUE(sink->Put("five"));
    EXPECT_THAT(sink->Take(), ElementsAre("(", "five\n", ")"));
}

TEST_F(LogWriterTest, CallersGoOnPushingDuringAWrite)
{
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

TEST_F(LogWriterTest, ReportsWhatWasDroppedBehindTheNextLines)
{
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
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre()) << "the poll thread is out of it";
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
    sink->Poll();
    EXPECT_THAT(sink->Take(), ElementsAre("(", "first\n", ")"));
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

} // namespace
} // namespace fodr
