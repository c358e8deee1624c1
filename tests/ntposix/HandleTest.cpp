#include "ntposix/NtWords.h"

#include <atomic>
#include <filesystem>
#include <set>
#include <sys/resource.h>
#include <thread>

namespace fodr::nt {

namespace {

using Handles = NtFixture;

uint64_t Number(HANDLE handle)
{
    return reinterpret_cast<uintptr_t>(handle);
}

TEST_F(Handles, AreSmallMultiplesOfFourAndNeverComeBackSoon)
{
    MakeFile("file");
    std::set<uint64_t> seen;
    for (int i = 0; i < 20'000; ++i) {
        const NtFile file = Open("file", {.access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        const uint64_t number = Number(file);
        EXPECT_TRUE(number != 0 && number % 4 == 0 && number <= 0xFFFFFFFF) << number;
        EXPECT_TRUE(seen.insert(number).second) << number;
    }
}

TEST_F(Handles, StaleAndInventedOnesAreRefused)
{
    MakeFile("file");
    HANDLE stale = nullptr;
    {
        const NtFile file = Open("file");
        stale = file;
    }
    std::vector<NtFile> successors;
    for (int i = 0; i < 3000; ++i)
        successors.push_back(Open("file"));
    const auto live = Number(successors[0]);
    for (uint64_t number :
         std::initializer_list<uint64_t>{Number(stale), uint64_t{0}, uint64_t{4}, live + 1, live | 1ull << 32,
                                         live ^ 1u << 20, uint64_t{0xFFFFFFFC}, ~uint64_t{0}}) {
        const auto handle = reinterpret_cast<HANDLE>(number);
        FILE_BASIC_INFORMATION basic{};
        IO_STATUS_BLOCK io{};
        EXPECT_EQ(ReadAt(handle, 0, 1).status, STATUS_INVALID_HANDLE) << number;
        EXPECT_EQ(WriteAt(handle, 0, "x").status, STATUS_INVALID_HANDLE) << number;
        EXPECT_EQ(Query(handle, FileBasicInformation, &basic).status, STATUS_INVALID_HANDLE) << number;
        EXPECT_EQ(Set(handle, FileBasicInformation, basic), STATUS_INVALID_HANDLE) << number;
        EXPECT_EQ(NtQueryVolumeInformationFile(handle, &io, &basic, sizeof(basic), FileFsSizeInformation),
                  STATUS_INVALID_HANDLE)
            << number;
        EXPECT_EQ(NtClose(handle), STATUS_INVALID_HANDLE) << number;
    }
}

TEST_F(Handles, ThereAreMoreThanTheSoftLimit)
{
    MakeFile("file");
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit low = before;
    low.rlim_cur = 256;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<NtFile> files;
    for (int i = 0; i < 1000; ++i) {
        files.push_back(Open("file"));
        ASSERT_EQ(files.back().status, STATUS_SUCCESS);
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

// In a process of its own, since a lowered hard limit stays.
TEST_F(Handles, TheHardLimitIsTheEnd)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    MakeFile("file");
    auto exhaust = [this] {
        const rlimit low{.rlim_cur = 100, .rlim_max = 100};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
        std::vector<NtFile> files;
        do {
            files.push_back(Open("file"));
        } while (files.back().status == STATUS_SUCCESS && files.size() < 1000);
        EXPECT_EQ(files.back().status, STATUS_TOO_MANY_OPENED_FILES);
        EXPECT_EQ(Open("FILE").status, STATUS_TOO_MANY_OPENED_FILES);
        EXPECT_EQ(Open("new", {.disposition = FILE_CREATE}).status, STATUS_TOO_MANY_OPENED_FILES);
        files.clear();
        EXPECT_EQ(Open("FILE").status, STATUS_SUCCESS);
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored); // no destructor runs
        _exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(exhaust(), testing::ExitedWithCode(0), "");
}

TEST_F(Handles, AreClosedOnceWhileOthersUseThem)
{
    MakeFile("file", std::string(4096, 'x'));
    constexpr int kThreads = 4;
    for (int round = 0; round < 200; ++round) {
        NtFile file = Open("file");
        const HANDLE handle = file;
        std::atomic<int> ready{0};
        std::atomic<int> closed{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                for (++ready; ready < kThreads;)
                    std::this_thread::yield();
                for (int n = 0; n < 20; ++n) {
                    const ReadResult result = ReadAt(handle, 0, 4096);
                    EXPECT_TRUE(result.status == STATUS_INVALID_HANDLE ||
                                (result.status == STATUS_SUCCESS && result.text.size() == 4096));
                    if (n == i * 5)
                        closed += NtClose(handle) == STATUS_SUCCESS;
                }
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(closed, 1);
        EXPECT_EQ(file.Close(), STATUS_INVALID_HANDLE);
    }
}

// Opens, renames and deletions of the same few names by many threads: whatever the outcome of each, in the
// end nothing is left open and every name can be had.
TEST_F(Handles, ManyThreadsAtTheSameNames)
{
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) {
        threads.emplace_back([this, seed] {
            unsigned state = seed;
            auto pick = [&state](unsigned count) {
                return (state = state * 1664525 + 1013904223) >> 16 & (count - 1);
            };
            for (int i = 0; i < 300; ++i) {
                const std::string name(1, "aAbB"[pick(4)]);
                NtFile file = Open(name, {.access = GENERIC_READ | GENERIC_WRITE | DELETE_ACCESS,
                                          .disposition = pick(2) ? FILE_OPEN_IF : FILE_OVERWRITE_IF,
                                          .share = pick(2) ? 7u : 3u});
                if (file.status != STATUS_SUCCESS)
                    continue;
                WriteAt(file, 0, "content");
                switch (pick(4)) {
                case 0:
                    (void)Delete(file);
                    break;
                case 1:
                    (void)Rename(file, NtPath(std::string(1, "aAbB"[pick(4)])), Existing::Replace);
                    break;
                default:
                    ReadAt(file, 0, 10);
                }
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    for (const char *name : {"a", "b"}) {
        NtFile file = Open(name, {.access = GENERIC_ALL, .disposition = FILE_OPEN_IF, .share = 0});
        EXPECT_EQ(file.status, STATUS_SUCCESS) << name;
        EXPECT_EQ(Delete(file), STATUS_SUCCESS) << name;
    }
    EXPECT_TRUE(std::filesystem::is_empty(root));
}

} // namespace

} // namespace fodr::nt
