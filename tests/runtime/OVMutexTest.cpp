#include "runtime/OVMutex.h"

#include "MatchesPattern.h"
#include "platform/Threads.h"
#include "runtime/CapturedLog.h"
#include "runtime/FreeElsewhere.h"
#include "runtime/StringUtils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>

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

} // namespace
} // namespace fodr
