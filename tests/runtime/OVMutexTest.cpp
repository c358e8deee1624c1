#include "runtime/OVMutex.h"

#include "platform/Threads.h"
#include "runtime/CapturedLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <thread>

// Releases by the wrong thread are what is tested here.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "report_mutex_bugs=0";
}

namespace fodr {
namespace {

std::string HexId(uint32_t id)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%04x", id);
    return text;
}

// Not every system's GoogleTest has whole regular expressions.
auto MatchesPattern(const std::string &pattern)
{
    return testing::Truly(
        [pattern](const std::string &line) { return std::regex_match(line, std::regex(pattern)); });
}

// What the analysis of locks at compile time rightly refuses is wanted here.
bool Lock(OVMutex &mutex, uint32_t timeoutMS = kInfinite) NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.Acquire(timeoutMS);
}
bool Unlock(OVMutex &mutex) NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.Release();
}

bool FreeElsewhere(OVMutex &mutex)
{
    bool acquired = false;
    std::thread([&] {
        acquired = Lock(mutex, 0);
        if (acquired)
            Unlock(mutex);
    }).join();
    return acquired;
}

class OVMutexTest : public testing::Test {
protected:
    // Runs `body` on a thread and returns its id.
    template <typename Body> static uint32_t OnThread(Body body)
    {
        uint32_t id = 0;
        std::thread([&] {
            id = platform::CurrentThreadId();
            body();
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
    EXPECT_FALSE(FreeElsewhere(mutex));
    // A stranger's release is refused and leaves the count alone.
    OnThread([&] {
        EXPECT_FALSE(Unlock(mutex));
        EXPECT_FALSE(Lock(mutex, 1));
    });
    EXPECT_FALSE(FreeElsewhere(mutex));
    EXPECT_TRUE(Unlock(mutex));
    EXPECT_TRUE(FreeElsewhere(mutex));
    EXPECT_TRUE(log.Lines().empty());                             // time ran out silently
    EXPECT_TRUE(FreeElsewhere(*std::make_unique<OVMutex>(true))); // none starts out owned
}

TEST_F(OVMutexTest, SaysThatItsHolderEnded)
{
    const std::string line =
        "W OVMutex::Acquire\\(\\): Acquired abandoned lock 0x[0-9A-F]{16} previously held by thread ";
    const uint32_t first = OnThread([&] { EXPECT_TRUE(Lock(mutex) && Lock(mutex)); });
    const uint32_t second = OnThread([&] { EXPECT_TRUE(Lock(mutex)); }); // the count begins anew with it
    EXPECT_TRUE(Lock(mutex));
    EXPECT_THAT(log.Lines(), testing::ElementsAre(MatchesPattern(line + HexId(first)),
                                                  MatchesPattern(line + HexId(second))));
    EXPECT_TRUE(Unlock(mutex));
    EXPECT_TRUE(FreeElsewhere(mutex));
}

TEST_F(OVMutexTest, ReportsALikelyDeadlockOnceAndKeepsWaiting)
{
    OVMutex::deadlockReportMS = 1;
    EXPECT_TRUE(Lock(mutex));
    std::thread waiter([&] {
        EXPECT_TRUE(Lock(mutex));
        EXPECT_TRUE(Unlock(mutex));
    });
    while (log.Lines().empty())
        std::this_thread::yield();
    EXPECT_TRUE(Unlock(mutex));
    waiter.join();
    OVMutex::deadlockReportMS = 30000;
    EXPECT_THAT(log.Lines(), testing::ElementsAre(MatchesPattern(
                                 "W OVMutex::Acquire\\(\\): Possible deadlock trying to acquire lock "
                                 "0x[0-9A-F]{16} held by thread " +
                                 HexId(platform::CurrentThreadId()))));
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
    std::thread first(count), second(count), third(count);
    first.join();
    second.join();
    third.join();
    EXPECT_EQ(9000, plain);
    OVMutexLock held(mutex);
    {
        OVMutexUnlock unlocked(mutex);
        EXPECT_TRUE(FreeElsewhere(mutex));
    }
    EXPECT_FALSE(FreeElsewhere(mutex));
}

} // namespace
} // namespace fodr
