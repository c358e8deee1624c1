#include "lib/misc/Fd.h"
#include "ntposix/AdvisoryLocks.h"
#include "ntposix/LockTable.h"
#include "ntposix/NtWords.h"

#include <fcntl.h>

#include <atomic>
#include <sys/file.h>

namespace fodr::nt {
namespace {

constexpr uint64_t kMax = UINT64_MAX;

class Locks : public NtFixture {
protected:
    Locks()
    {
        MakeFile("f", std::string(100, 'x'));
        first = Opened();
        second = Opened();
    }

    NtFile Opened() const { return Open("f", {.access = kReadWrite}); }
    std::future<NTSTATUS> Waiting(HANDLE file, uint64_t offset, uint64_t length, bool exclusive) const
    {
        return std::async(std::launch::async, Lock, file, offset, length, exclusive, WhenHeld::Wait, 0);
    }
    // A lock of another process, for which an open file of its own stands. None when it isn't granted.
    Fd LockOfOthers(off_t offset, off_t length, short type) const
    {
        Fd fd(open(Path("f").c_str(), O_RDWR | O_CLOEXEC));
        struct flock range = {};
        range.l_type = type;
        range.l_start = offset;
        range.l_len = length;
        return fcntl(fd.Get(), F_OFD_SETLK, &range) == 0 ? std::move(fd) : Fd();
    }
    bool FreeForOthers(off_t offset, short type = F_WRLCK) const
    {
        return static_cast<bool>(LockOfOthers(offset, 1, type));
    }

    NtFile first, second;
};

TEST_F(Locks, ConflictWhereTheyOverlapUnlessBothAreShared)
{
    struct Range {
        uint64_t offset, length;
        bool exclusive = true;
    };
    // One without length stands between two bytes and is in the way of what reaches over it. And there are
    // ranges up to the last byte that there could be.
    const std::pair<Range, Range> granted[] = {
        {{10, 10}, {20, 10}}, {{10, 10}, {0, 10}}, {{10, 10, false}, {10, 10, false}},
        {{10, 10}, {10, 0}},  {{10, 10}, {20, 0}}, {{15, 0}, {15, 10}},
        {{15, 0}, {15, 0}},   {{0, 0}, {0, 10}},   {{kMax, 1}, {kMax - 5, 5}},
    };
    const std::pair<Range, Range> refused[] = {
        {{10, 10}, {19, 1, false}}, {{10, 10}, {0, 11}}, {{10, 10, false}, {10, 10}}, {{10, 10}, {0, kMax}},
        {{10, 10}, {15, 0}},        {{15, 0}, {10, 10}}, {{kMax, 1}, {kMax - 5, 6}},
    };
    const auto check = [this](const Range &held, const Range &wanted, NTSTATUS status, NTSTATUS unlocking) {
        SCOPED_TRACE(testing::Message() << held.offset << " and " << wanted.offset << ", " << wanted.length);
        ASSERT_EQ(Lock(first, held.offset, held.length, held.exclusive), STATUS_SUCCESS);
        EXPECT_EQ(Lock(second, wanted.offset, wanted.length, wanted.exclusive), status);
        EXPECT_EQ(Unlock(second, wanted.offset, wanted.length), unlocking);
        ASSERT_EQ(Unlock(first, held.offset, held.length), STATUS_SUCCESS);
    };
    for (const auto &[held, wanted] : granted)
        check(held, wanted, STATUS_SUCCESS, STATUS_SUCCESS);
    for (const auto &[held, wanted] : refused)
        check(held, wanted, STATUS_LOCK_NOT_GRANTED, STATUS_RANGE_NOT_LOCKED);
}

TEST_F(Locks, OfOneHandleAreNoExceptionButForSharedOverExclusive)
{
    ASSERT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS);
    EXPECT_EQ(Lock(first, 0, 10, true), STATUS_LOCK_NOT_GRANTED);
    // Another key is another owner.
    EXPECT_EQ(Lock(first, 0, 10, false, WhenHeld::Fail, 7), STATUS_LOCK_NOT_GRANTED);
    EXPECT_EQ(Lock(first, 0, 10, false), STATUS_SUCCESS);
    // The exclusive one goes first, and the shared one still holds then.
    EXPECT_EQ(Unlock(first, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(Lock(second, 0, 10, true), STATUS_LOCK_NOT_GRANTED);
    EXPECT_EQ(Lock(second, 0, 10, false), STATUS_SUCCESS);
    EXPECT_EQ(Unlock(first, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(Unlock(first, 0, 10), STATUS_RANGE_NOT_LOCKED);
}

TEST_F(Locks, RefuseWhatIsNoRangeNoFileOrNoRight)
{
    EXPECT_EQ(Lock(first, 2, kMax, true), STATUS_INVALID_LOCK_RANGE);
    EXPECT_EQ(Lock(first, kMax, 2, false), STATUS_INVALID_LOCK_RANGE);
    EXPECT_EQ(Lock(first, 1, kMax, true), STATUS_SUCCESS);
    EXPECT_EQ(Unlock(first, 1, kMax - 1), STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(Unlock(second, 1, kMax), STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(Unlock(first, 1, kMax, 3), STATUS_RANGE_NOT_LOCKED);

    EXPECT_EQ(Lock(Folder(""), 0, 1, true), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Lock(Open("f", {.access = FILE_APPEND_DATA}), 0, 1, true), STATUS_ACCESS_DENIED);
}

TEST_F(Locks, ForbidTransfersOfOthers)
{
    const struct {
        bool exclusive;
        HANDLE file;
        int64_t offset;
        uint32_t length;
        bool mayRead, mayWrite;
    } cases[] = {
        {true, second, 15, 1, false, false}, {true, second, 0, 11, false, false},
        {true, second, 0, 10, true, true},   {true, second, 20, 5, true, true},
        {true, first, 15, 1, true, true},    {false, second, 15, 1, true, false},
        {false, first, 15, 1, true, false}, // nor may the holder of a shared lock write
        {false, first, 20, 1, true, true},
    };
    const auto expected = [](bool may) { return may ? STATUS_SUCCESS : STATUS_FILE_LOCK_CONFLICT; };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        ASSERT_EQ(Lock(first, 10, 10, c.exclusive), STATUS_SUCCESS);
        EXPECT_EQ(ReadAt(c.file, c.offset, c.length).status, expected(c.mayRead));
        EXPECT_EQ(WriteAt(c.file, c.offset, std::string(c.length, 'w')).status, expected(c.mayWrite));
        ASSERT_EQ(Unlock(first, 10, 10), STATUS_SUCCESS);
    }
}

TEST_F(Locks, AreSeenByOtherProcesses)
{
    ASSERT_EQ(Lock(first, 10, 10, true), STATUS_SUCCESS);
    EXPECT_TRUE(FreeForOthers(9) && FreeForOthers(20));
    EXPECT_FALSE(FreeForOthers(10, F_RDLCK) || FreeForOthers(19, F_RDLCK));
    // A shared lock of the same handle must not soften the exclusive one, and outlives it in its own part.
    ASSERT_EQ(Lock(first, 5, 10, false), STATUS_SUCCESS);
    EXPECT_FALSE(FreeForOthers(12, F_RDLCK) || FreeForOthers(5));
    EXPECT_TRUE(FreeForOthers(5, F_RDLCK));
    ASSERT_EQ(Unlock(first, 10, 10), STATUS_SUCCESS);
    EXPECT_TRUE(FreeForOthers(15) && FreeForOthers(12, F_RDLCK));
    EXPECT_FALSE(FreeForOthers(12));
    // One of two overlapping shared locks goes; the other keeps all of its range.
    ASSERT_EQ(Lock(first, 0, 8, false), STATUS_SUCCESS);
    ASSERT_EQ(Unlock(first, 5, 10), STATUS_SUCCESS);
    EXPECT_FALSE(FreeForOthers(7));
    EXPECT_TRUE(FreeForOthers(8));
    first.Close();
    EXPECT_TRUE(FreeForOthers(0) && FreeForOthers(7));

    // A handle that may not write still keeps writers out.
    const NtFile reader = Open("f");
    ASSERT_EQ(Lock(reader, 0, 1, true), STATUS_SUCCESS);
    EXPECT_FALSE(FreeForOthers(0));
    EXPECT_EQ(Lock(second, 0, 1, false), STATUS_LOCK_NOT_GRANTED);
}

TEST_F(Locks, WaitForTheHolder)
{
    ASSERT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS);
    NtFile third = Opened();
    auto shared = Waiting(second, 0, 5, false);
    auto other = Waiting(third, 5, 5, false);
    ASSERT_EQ(Unlock(first, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(shared.get(), STATUS_SUCCESS);
    EXPECT_EQ(other.get(), STATUS_SUCCESS);
    auto exclusive = Waiting(first, 0, 10, true);
    EXPECT_EQ(Unlock(second, 0, 5), STATUS_SUCCESS);
    third.Close();
    EXPECT_EQ(exclusive.get(), STATUS_SUCCESS);
    EXPECT_EQ(Lock(second, 0, 1, false), STATUS_LOCK_NOT_GRANTED);
}

TEST_F(Locks, WaitForAnotherProcess)
{
    for (int round = 0; round < 30; ++round) { // in some the wait has begun before the unlock
        Fd others = LockOfOthers(0, 10, F_WRLCK);
        ASSERT_TRUE(others);
        EXPECT_EQ(Lock(first, 5, 10, true), STATUS_LOCK_NOT_GRANTED);
        EXPECT_EQ(Lock(first, 10, 10, true), STATUS_SUCCESS);
        // This one waits for the handle first and for the process then.
        auto waiting = Waiting(second, 0, 15, true);
        std::this_thread::yield();
        ASSERT_EQ(Unlock(first, 10, 10), STATUS_SUCCESS);
        others.Reset();
        EXPECT_EQ(waiting.get(), STATUS_SUCCESS);
        EXPECT_FALSE(FreeForOthers(0));
        ASSERT_EQ(Unlock(second, 0, 15), STATUS_SUCCESS);
    }
}

TEST_F(Locks, CancelEndsAWaitAndNothingElse)
{
    EXPECT_EQ(CancelIoEx(second), 1168u);
    ASSERT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS);
    auto waiting = Waiting(second, 0, 5, true);
    CancelCall(second);
    EXPECT_EQ(waiting.get(), STATUS_CANCELLED);
    ASSERT_EQ(Unlock(first, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS); // the one cancelled left nothing
}

TEST_F(Locks, FallWithTheirHandleAndEndItsWaits)
{
    ASSERT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS);
    ExpectCloseEnds([this] { return Opened(); },
                    [](HANDLE file) { return Lock(file, 0, 5, true, WhenHeld::Wait); },
                    STATUS_RANGE_NOT_LOCKED);
    first.Close();
    EXPECT_EQ(Lock(second, 0, 10, true), STATUS_SUCCESS);
}

// Exclusive locks by many threads: never two at once, and none is forgotten.
TEST_F(Locks, ExcludeEachOtherUnderLoad)
{
    std::atomic<int> inside{0};
    AtOnce(4, [&](int) {
        const NtFile file = Opened();
        for (int i = 0; i < 200; ++i) {
            EXPECT_EQ(Lock(file, 0, 10, true, WhenHeld::Wait), STATUS_SUCCESS);
            EXPECT_EQ(inside.fetch_add(1), 0);
            inside.fetch_sub(1);
            EXPECT_EQ(Unlock(file, 0, 10), STATUS_SUCCESS);
        }
    });
}

TEST_F(Locks, OfAFileAndOfAllFilesHaveALimit)
{
    using ntposix::LockTable;
    for (uint64_t n = 0; n < LockTable::kMostOfFile; ++n)
        ASSERT_EQ(Lock(n % 2 ? first : second, n, 1, false, WhenHeld::Fail), STATUS_SUCCESS) << n;
    EXPECT_EQ(Lock(first, 5000, 1, false, WhenHeld::Fail), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Unlock(second, 0, 1), STATUS_SUCCESS);
    EXPECT_EQ(Lock(first, 5000, 1, false, WhenHeld::Fail), STATUS_SUCCESS);

    std::vector<NtFile> files;
    for (size_t held = LockTable::kMostOfFile; held < LockTable::kMostInAll;) {
        const std::string name = "f" + std::to_string(held);
        MakeFile(name);
        files.push_back(Open(name, {.access = kReadWrite}));
        for (uint64_t n = 0; n < LockTable::kMostOfFile; ++n, ++held)
            ASSERT_EQ(Lock(files.back(), 2 * n, 1, true), STATUS_SUCCESS);
    }
    MakeFile("one-more");
    const NtFile more = Open("one-more", {.access = kReadWrite});
    EXPECT_EQ(Lock(more, 0, 1, true), STATUS_INSUFFICIENT_RESOURCES);
    files.clear();
    EXPECT_EQ(Lock(more, 0, 1, true), STATUS_SUCCESS);
}

// ---- advisory ones

class AdvisoryLocking : public Locks {
protected:
    static constexpr uint64_t kBase = FODR_LOCKS_BASE, kSpan = FODR_LOCKS_SPAN;

    // By flock of another process.
    bool WholeFree(bool exclusive) const
    {
        const Fd fd(open(Path("f").c_str(), O_RDWR | O_CLOEXEC));
        return flock(fd.Get(), (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0;
    }
    // What is in the way of an exclusive lock of the whole file.
    std::vector<uint64_t> InTheWayOf(HANDLE file) const
    {
        FODR_LOCK asked{.Offset = 0, .Length = kSpan, .Type = FODR_LOCK_EXCLUSIVE, .Reserved = 0};
        IO_STATUS_BLOCK io{};
        EXPECT_EQ(NtDeviceIoControlFile(file, nullptr, nullptr, nullptr, &io, FSCTL_FODR_QUERY_LOCK, &asked,
                                        sizeof(asked), &asked, sizeof(asked)),
                  STATUS_SUCCESS);
        return {asked.Offset, asked.Length, asked.Type};
    }
};

// As fcntl: a range is replaced in parts, is no obstacle to transfers, and is seen by other processes.
TEST_F(AdvisoryLocking, AreThoseOfTheKernelAtTheRealOffsets)
{
    ASSERT_EQ(Lock(first, kBase + 10, 10, true), STATUS_SUCCESS);
    EXPECT_EQ(WriteAt(second, 10, "w").status, STATUS_SUCCESS);
    EXPECT_TRUE(FreeForOthers(9) && FreeForOthers(20));
    EXPECT_FALSE(FreeForOthers(10, F_RDLCK));
    EXPECT_EQ(Lock(second, kBase + 19, 1, false), STATUS_LOCK_NOT_GRANTED);
    EXPECT_EQ(InTheWayOf(second), (std::vector<uint64_t>{10, 10, FODR_LOCK_EXCLUSIVE}));
    EXPECT_EQ(InTheWayOf(first)[2], 0u);

    ASSERT_EQ(Lock(first, kBase + 12, 2, false), STATUS_SUCCESS); // a part of it becomes a shared one
    EXPECT_TRUE(FreeForOthers(12, F_RDLCK));
    EXPECT_FALSE(FreeForOthers(12) || FreeForOthers(14, F_RDLCK));
    ASSERT_EQ(Unlock(first, kBase + 14, 3), STATUS_SUCCESS);
    EXPECT_TRUE(FreeForOthers(14) && FreeForOthers(16));
    EXPECT_FALSE(FreeForOthers(17));
    EXPECT_EQ(Unlock(first, kBase + 50, 3), STATUS_SUCCESS); // nothing was held

    // A range up to the last byte has no end, and NT's own locks at the same bytes are in its way.
    ASSERT_EQ(Lock(second, kBase + 30, kSpan - 30, false), STATUS_SUCCESS);
    EXPECT_FALSE(FreeForOthers(INT64_MAX - 1));
    EXPECT_EQ(InTheWayOf(first), (std::vector<uint64_t>{30, kSpan - 30, FODR_LOCK_SHARED}));
    EXPECT_TRUE(LockOfOthers(40, 1, F_RDLCK));
    const NtFile third = Opened();
    ASSERT_EQ(Lock(third, 0, 5, true), STATUS_SUCCESS);
    EXPECT_EQ(Lock(second, kBase, 1, false), STATUS_LOCK_NOT_GRANTED);
    first.Close();
    second.Close();
    EXPECT_TRUE(FreeForOthers(10) && FreeForOthers(40));
}

TEST_F(AdvisoryLocking, OfTheWholeFileAreThoseOfFlock)
{
    ASSERT_EQ(Lock(first, FODR_LOCK_WHOLE, 1, true), STATUS_SUCCESS);
    EXPECT_FALSE(WholeFree(false));
    EXPECT_TRUE(FreeForOthers(0));
    EXPECT_EQ(Lock(second, FODR_LOCK_WHOLE, 1, false), STATUS_LOCK_NOT_GRANTED);
    ASSERT_EQ(Lock(first, FODR_LOCK_WHOLE, 1, false), STATUS_SUCCESS);
    EXPECT_EQ(Lock(second, FODR_LOCK_WHOLE, 1, false), STATUS_SUCCESS);
    EXPECT_EQ(Lock(first, FODR_LOCK_WHOLE, 1, true), STATUS_LOCK_NOT_GRANTED);
    second.Close();
    EXPECT_TRUE(WholeFree(true)); // the change that was refused has lost the lock
    const NtFile reader = Open("f");
    EXPECT_EQ(Lock(reader, FODR_LOCK_WHOLE, 1, true), STATUS_SUCCESS);
    EXPECT_EQ(Lock(reader, kBase, 1, true), STATUS_ACCESS_DENIED); // fcntl wants a descriptor that writes
    EXPECT_EQ(Unlock(reader, FODR_LOCK_WHOLE, 1), STATUS_SUCCESS);
    EXPECT_TRUE(WholeFree(true));
}

TEST_F(AdvisoryLocking, WaitForWhoeverHoldsThem)
{
    for (const bool whole : {false, true}) {
        const uint64_t at = whole ? FODR_LOCK_WHOLE : kBase + 5;
        ASSERT_EQ(Lock(first, at, 1, false), STATUS_SUCCESS);
        auto waiting = Waiting(second, at, 1, true);
        ASSERT_EQ(Unlock(first, at, 1), STATUS_SUCCESS);
        EXPECT_EQ(waiting.get(), STATUS_SUCCESS);
        // The end of a wait leaves what the handle holds.
        ASSERT_EQ(Lock(first, kBase + 50, 1, true), STATUS_SUCCESS);
        waiting = Waiting(first, at, 1, true);
        while (waiting.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready)
            EXPECT_EQ(Unlock(first, FODR_LOCK_WAITS, 1), STATUS_SUCCESS);
        EXPECT_EQ(waiting.get(), STATUS_CANCELLED);
        EXPECT_FALSE(FreeForOthers(50));
        ASSERT_EQ(Unlock(second, at, 1), STATUS_SUCCESS);
        EXPECT_EQ(Unlock(first, kBase + 50, 1), STATUS_SUCCESS);
    }
    Fd others = LockOfOthers(0, 10, F_WRLCK);
    auto waiting = Waiting(first, kBase, 100, false);
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    others.Reset();
    EXPECT_EQ(waiting.get(), STATUS_SUCCESS);
    ExpectCloseEnds([this] { return Opened(); },
                    [](HANDLE file) { return Lock(file, kBase, 5, true, WhenHeld::Wait); },
                    STATUS_RANGE_NOT_LOCKED);
}

TEST_F(AdvisoryLocking, HaveTheirPlaceAndALimit)
{
    EXPECT_EQ(Lock(first, FODR_LOCK_WAITS, 1, true), STATUS_INVALID_PARAMETER);
    // What isn't wholly in the place is an ordinary range, which two locks of a handle can't share.
    for (const auto &[offset, length] :
         {std::pair<uint64_t, uint64_t>{kBase - 1, 2}, {kBase + kSpan - 1, 5}, {kBase + 3, 0}}) {
        EXPECT_EQ(Lock(first, offset, length, true), STATUS_SUCCESS);
        EXPECT_EQ(Lock(first, offset, length, true), length ? STATUS_LOCK_NOT_GRANTED : STATUS_SUCCESS);
        EXPECT_EQ(Unlock(first, offset, length), STATUS_SUCCESS);
    }
    constexpr uint64_t kMost = ntposix::AdvisoryLocks::kMostOfFile;
    for (uint64_t n = 0; n < kMost; ++n)
        ASSERT_EQ(Lock(n % 2 ? first : second, kBase + 3 * n, 2, true), STATUS_SUCCESS) << n;
    EXPECT_EQ(Lock(first, kBase + 9000, 1, true), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Lock(first, kBase + 3, 1, false), STATUS_INSUFFICIENT_RESOURCES); // would split one
    EXPECT_EQ(Unlock(first, kBase + 3, 2), STATUS_SUCCESS);
    EXPECT_EQ(Lock(second, kBase + 9000, 3, true), STATUS_SUCCESS);
    EXPECT_EQ(Unlock(second, kBase + 9001, 1), STATUS_INSUFFICIENT_RESOURCES);
    second.Close();
    EXPECT_EQ(Lock(first, kBase + 9000, 1, true), STATUS_SUCCESS);
}

} // namespace
} // namespace fodr::nt
