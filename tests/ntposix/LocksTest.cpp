#include "ntposix/NtWords.h"

#include <fcntl.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace fodr::nt {
namespace {

constexpr uint32_t kReadWrite = GENERIC_READ | GENERIC_WRITE;
constexpr uint64_t kMax = UINT64_MAX;

LARGE_INTEGER Large(uint64_t value)
{
    return {static_cast<int64_t>(value)};
}

NTSTATUS Lock(HANDLE file, uint64_t offset, uint64_t length, bool exclusive, bool failImmediately = true,
              uint32_t key = 0)
{
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER start = Large(offset), size = Large(length);
    const NTSTATUS status =
        NtLockFile(file, nullptr, nullptr, nullptr, &io, &start, &size, key, failImmediately, exclusive);
    EXPECT_EQ(io.Status, status);
    return status;
}

NTSTATUS Unlock(HANDLE file, uint64_t offset, uint64_t length, uint32_t key = 0)
{
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER start = Large(offset), size = Large(length);
    return NtUnlockFile(file, &io, &start, &size, key);
}

class Locks : public NtFixture {
protected:
    Locks()
    {
        MakeFile("f", std::string(100, 'x'));
        first = Open("f", {.access = kReadWrite});
        second = Open("f", {.access = kReadWrite});
        EXPECT_EQ(first.status, STATUS_SUCCESS);
        EXPECT_EQ(second.status, STATUS_SUCCESS);
    }

    // Whether another process could lock the byte; an open file of its own stands for one.
    bool FreeForOthers(off_t offset, short type = F_WRLCK) const
    {
        const int fd = open(Path("f").c_str(), O_RDWR | O_CLOEXEC);
        struct flock range = {};
        range.l_type = type;
        range.l_start = offset;
        range.l_len = 1;
        const bool free = fcntl(fd, F_OFD_SETLK, &range) == 0;
        close(fd);
        return free;
    }

    NtFile first, second;
};

TEST_F(Locks, ConflictWhereTheyOverlapUnlessBothAreShared)
{
    struct Case {
        uint64_t heldOffset, heldLength;
        bool heldExclusive;
        uint64_t offset, length;
        bool exclusive, granted;
    };
    constexpr Case kCases[] = {
        {10, 10, true, 20, 10, true, true},
        {10, 10, true, 0, 10, true, true},
        {10, 10, true, 19, 1, false, false},
        {10, 10, true, 0, 11, true, false},
        {10, 10, false, 10, 10, true, false},
        {10, 10, false, 10, 10, false, true},
        {10, 10, true, 0, kMax, true, false},
        // A lock without length stands between two bytes and is in the way of what reaches over it.
        {10, 10, true, 15, 0, true, false},
        {10, 10, true, 10, 0, true, true},
        {10, 10, true, 20, 0, true, true},
        {15, 0, true, 10, 10, true, false},
        {15, 0, true, 15, 10, true, true},
        {15, 0, true, 15, 0, true, true},
        {0, 0, true, 0, 10, true, true},
        // Up to the last byte that there could be.
        {kMax, 1, true, kMax - 5, 5, true, true},
        {kMax, 1, true, kMax - 5, 6, true, false},
    };
    for (const Case &c : kCases) {
        ASSERT_EQ(Lock(first, c.heldOffset, c.heldLength, c.heldExclusive), STATUS_SUCCESS);
        const NTSTATUS expected = c.granted ? STATUS_SUCCESS : STATUS_LOCK_NOT_GRANTED;
        EXPECT_EQ(Lock(second, c.offset, c.length, c.exclusive), expected) << &c - kCases;
        EXPECT_EQ(Unlock(second, c.offset, c.length), c.granted ? STATUS_SUCCESS : STATUS_RANGE_NOT_LOCKED);
        ASSERT_EQ(Unlock(first, c.heldOffset, c.heldLength), STATUS_SUCCESS);
    }
}

TEST_F(Locks, OfOneHandleAreNoExceptionButForSharedOverExclusive)
{
    ASSERT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS);
    EXPECT_EQ(Lock(first, 0, 10, true), STATUS_LOCK_NOT_GRANTED);
    EXPECT_EQ(Lock(first, 0, 10, false, true, 7), STATUS_LOCK_NOT_GRANTED); // another key is another owner
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

    const NtFile folder = Open("", {.options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(Lock(folder, 0, 1, true), STATUS_INVALID_PARAMETER);
    const NtFile appender = Open("f", {.access = FILE_APPEND_DATA});
    EXPECT_EQ(Lock(appender, 0, 1, true), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Lock(nullptr, 0, 1, true), STATUS_INVALID_HANDLE);
}

TEST_F(Locks, ForbidTransfersOfOthers)
{
    struct Case {
        bool exclusive;
        HANDLE file;
        int64_t offset;
        uint32_t length;
        bool mayRead, mayWrite;
    };
    const Case cases[] = {
        {true, second, 15, 1, false, false}, {true, second, 0, 11, false, false},
        {true, second, 0, 10, true, true},   {true, second, 20, 5, true, true},
        {true, first, 15, 1, true, true},    {false, second, 15, 1, true, false},
        {false, first, 15, 1, true, false}, // nor may the holder of a shared lock write
        {false, first, 20, 1, true, true},
    };
    const auto expected = [](bool may) { return may ? STATUS_SUCCESS : STATUS_FILE_LOCK_CONFLICT; };
    for (const Case &c : cases) {
        ASSERT_EQ(Lock(first, 10, 10, c.exclusive), STATUS_SUCCESS);
        EXPECT_EQ(ReadAt(c.file, c.offset, c.length).status, expected(c.mayRead)) << &c - cases;
        EXPECT_EQ(WriteAt(c.file, c.offset, std::string(c.length, 'w')).status, expected(c.mayWrite))
            << &c - cases;
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
    auto shared = std::async(std::launch::async, [&] { return Lock(second, 0, 5, false, false); });
    NtFile third = Open("f", {.access = kReadWrite});
    auto other = std::async(std::launch::async, [&] { return Lock(third, 5, 5, false, false); });
    ASSERT_EQ(Unlock(first, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(shared.get(), STATUS_SUCCESS);
    EXPECT_EQ(other.get(), STATUS_SUCCESS);
    auto exclusive = std::async(std::launch::async, [&] { return Lock(first, 0, 10, true, false); });
    EXPECT_EQ(Unlock(second, 0, 5), STATUS_SUCCESS);
    third.Close();
    EXPECT_EQ(exclusive.get(), STATUS_SUCCESS);
    EXPECT_EQ(Lock(second, 0, 1, false), STATUS_LOCK_NOT_GRANTED);
}

TEST_F(Locks, WaitForAnotherProcess)
{
    const int fd = open(Path("f").c_str(), O_RDWR | O_CLOEXEC);
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_len = 10;
    ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &range), 0);
    EXPECT_EQ(Lock(first, 5, 10, true), STATUS_LOCK_NOT_GRANTED);
    EXPECT_EQ(Lock(first, 10, 10, true), STATUS_SUCCESS);
    // This one waits for the handle first and for the process then.
    auto waiting = std::async(std::launch::async, [&] { return Lock(second, 0, 15, true, false); });
    std::this_thread::yield();
    ASSERT_EQ(Unlock(first, 10, 10), STATUS_SUCCESS);
    close(fd);
    EXPECT_EQ(waiting.get(), STATUS_SUCCESS);
    EXPECT_FALSE(FreeForOthers(0));
}

TEST_F(Locks, CancelEndsAWaitAndNothingElse)
{
    EXPECT_EQ(CancelIoEx(second), 1168u);
    ASSERT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS);
    auto waiting = std::async(std::launch::async, [&] { return Lock(second, 0, 5, true, false); });
    while (CancelIoEx(second) != 0)
        std::this_thread::yield();
    EXPECT_EQ(waiting.get(), STATUS_CANCELLED);
    ASSERT_EQ(Unlock(first, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS); // the one cancelled left nothing
    EXPECT_EQ(CancelIoEx(nullptr), 6u);
}

TEST_F(Locks, FallWithTheirHandleAndEndItsWaits)
{
    ASSERT_EQ(Lock(first, 0, 10, true), STATUS_SUCCESS);
    bool ended = false;
    while (!ended) { // until a wait had begun when its handle was closed
        NtFile third = Open("f", {.access = kReadWrite});
        auto waiting = std::async(std::launch::async,
                                  [handle = HANDLE(third)] { return Lock(handle, 0, 5, true, false); });
        std::this_thread::yield();
        third.Close();
        const NTSTATUS status = waiting.get();
        ended = status == STATUS_RANGE_NOT_LOCKED;
        EXPECT_TRUE(ended || status == STATUS_INVALID_HANDLE) << std::hex << status;
    }
    first.Close();
    EXPECT_EQ(Lock(second, 0, 10, true), STATUS_SUCCESS);
}

// Exclusive locks by many threads: never two at once, and none is forgotten.
TEST_F(Locks, ExcludeEachOtherUnderLoad)
{
    std::atomic<int> inside{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            const NtFile file = Open("f", {.access = kReadWrite});
            for (int i = 0; i < 200; ++i) {
                EXPECT_EQ(Lock(file, 0, 10, true, false), STATUS_SUCCESS);
                EXPECT_EQ(inside.fetch_add(1), 0);
                inside.fetch_sub(1);
                EXPECT_EQ(Unlock(file, 0, 10), STATUS_SUCCESS);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
} // namespace fodr::nt
