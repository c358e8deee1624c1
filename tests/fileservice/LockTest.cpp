#include "Wine.h"
#include "fileservice/Share.h"

#include <thread>

namespace fodr::test {
namespace {

using namespace nt;

constexpr uint32_t kShared = RDP_LOWIO_OP_SHAREDLOCK;
constexpr uint32_t kExclusive = RDP_LOWIO_OP_EXCLUSIVELOCK;
constexpr uint32_t kUnlock = RDP_LOWIO_OP_UNLOCK;
constexpr uint32_t kUnlockMany = RDP_LOWIO_OP_UNLOCK_MULTIPLE;

// Wine has one status for both refusals.
const NTSTATUS kNotGranted = RunsOnWine() ? STATUS_FILE_LOCK_CONFLICT : STATUS_LOCK_NOT_GRANTED;
const NTSTATUS kNotLocked = RunsOnWine() ? STATUS_FILE_LOCK_CONFLICT : STATUS_RANGE_NOT_LOCKED;

TEST(LockControl, FollowsItsRules)
{
    struct Case {
        const char *what;
        uint32_t operation;
        std::vector<LockRange> ranges;
        NTSTATUS status;
    };
    const Case kCases[] = {
        {"no lock, nothing tried", 77, {}, STATUS_SUCCESS},
        {"exclusive", kExclusive, {{0, 10}}, STATUS_SUCCESS},
        {"shared beside it", kShared, {{10, 10}}, STATUS_SUCCESS},
        {"two for a single operation", kUnlock, {{0, 10}, {10, 10}}, STATUS_INVALID_PARAMETER},
        {"two for a single operation", kExclusive, {{100, 1}, {200, 1}}, STATUS_INVALID_PARAMETER},
        {"unknown operation", 6, {{0, 10}}, STATUS_INVALID_PARAMETER},
        {"not locked", kUnlock, {{500, 1}}, kNotLocked},
        {"both at once", kUnlockMany, {{0, 10}, {10, 10}}, STATUS_SUCCESS},
        {"gone by now", kUnlock, {{0, 10}}, kNotLocked},
    };
    Share share;
    share.Put("a", "");
    File file = share.Create(u"\\a");
    for (const Case &test : kCases) {
        Completion answer = file.Lock(test.operation, test.ranges);
        EXPECT_EQ(answer.Status(), test.status) << test.what;
        EXPECT_EQ(answer.Size(), 21u);
    }
}

TEST(LockControl, SharesWhatIsSharedAndNothingElse)
{
    Share share;
    share.Put("a", "");
    File one = share.Create(u"\\a");
    File two = share.Create(u"\\a");
    EXPECT_EQ(one.Lock(kShared, {{0, 10}}).Status(), STATUS_SUCCESS);
    EXPECT_EQ(two.Lock(kShared, {{5, 10}}).Status(), STATUS_SUCCESS);
    EXPECT_EQ(two.Lock(kExclusive, {{5, 1}}).Status(), kNotGranted);
}

TEST(LockControl, StopsAtTheFirstFailureAndRollsNothingBack)
{
    Share share;
    share.Put("a", "");
    File file = share.Create(u"\\a");
    file.Lock(kExclusive, {{0, 10}});
    file.Lock(kExclusive, {{20, 10}});
    EXPECT_EQ(file.Lock(kUnlockMany, {{0, 10}, {15, 1}, {20, 10}}).Status(), kNotLocked);
    File other = share.Create(u"\\a");
    EXPECT_EQ(other.Lock(kExclusive, {{0, 10}}).Status(), STATUS_SUCCESS); // unlocked before the failure
    EXPECT_EQ(other.Lock(kExclusive, {{20, 10}}).Status(), kNotGranted);
}

TEST(LockControl, TriesNoLockOfAListThatIsNotWhollyThere)
{
    Share share;
    share.Put("a", "");
    File file = share.Create(u"\\a");
    for (uint32_t count : {1u, 2u, 0x10000000u, 0xFFFFFFFFu}) {
        Bytes packet = share.Request(file.Id(), IRP_MJ_LOCK_CONTROL, 0,
                                     DR_DRIVE_LOCK_REQ{count == 1 ? kExclusive : kUnlockMany, 1, count},
                                     std::string(15, '\1'));
        EXPECT_EQ(share.Ask(packet).Status(), STATUS_INVALID_PARAMETER) << count;
    }
}

TEST(LockControl, AWaitingLockIsGrantedWhenTheRangeIsFree)
{
    Share share;
    share.Put("a", "");
    File holder = share.Create(u"\\a");
    File waiter = share.Create(u"\\a");
    holder.Lock(kExclusive, {{0, 10}});
    std::thread waiting([&] {
        EXPECT_EQ(waiter.Lock(kExclusive, {{5, 10}}, false).Status(), STATUS_SUCCESS);
    });
    share.fileSystem->AwaitBlockingCalls(1);
    EXPECT_EQ(holder.Lock(kUnlock, {{0, 10}}).Status(), STATUS_SUCCESS);
    waiting.join();
    EXPECT_EQ(holder.Lock(kShared, {{0, 10}}).Status(), kNotGranted);
}

} // namespace
} // namespace fodr::test
