#include "ntposix/NtWords.h"

#include <atomic>
#include <functional>
#include <sys/resource.h>

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
        const NtFile file = Open("file", {.access = FILE_READ_ATTRIBUTES});
        const uint64_t number = Number(file);
        EXPECT_TRUE(number != 0 && number % 4 == 0 && number <= 0xFFFFFFFF) << number;
        EXPECT_TRUE(seen.insert(number).second) << number;
    }
}

TEST_F(Handles, StaleAndInventedOnesAreRefusedByEveryCall)
{
    MakeFile("file");
    const uint64_t stale = Number(Open("file"));
    std::vector<NtFile> successors;
    for (int i = 0; i < 3000; ++i)
        successors.push_back(Open("file"));
    const uint64_t live = Number(successors[0]);
    IO_STATUS_BLOCK io{};
    uint8_t data[64]{};
    const std::function<NTSTATUS(HANDLE)> calls[] = {
        [](HANDLE h) { return ReadAt(h, 0, 1).status; },
        [](HANDLE h) { return WriteAt(h, 0, "x").status; },
        [&](HANDLE h) { return NtQueryInformationFile(h, &io, data, 64, FileBasicInformation); },
        [&](HANDLE h) { return NtSetInformationFile(h, &io, data, 64, FileBasicInformation); },
        [&](HANDLE h) { return NtQueryVolumeInformationFile(h, &io, data, 64, FileFsSizeInformation); },
        [&](HANDLE h) { return NtSetVolumeInformationFile(h, &io, data, 64, FileFsLabelInformation); },
        [&](HANDLE h) {
            return NtQueryDirectoryFile(h, nullptr, nullptr, nullptr, &io, data, 64, FileNamesInformation,
                                        false, nullptr, false);
        },
        [&](HANDLE h) {
            return NtDeviceIoControlFile(h, nullptr, nullptr, nullptr, &io, FSCTL_GET_COMPRESSION, nullptr, 0,
                                         data, 64);
        },
        [](HANDLE h) { return Lock(h, 0, 1, true); },
        [](HANDLE h) { return Unlock(h, 0, 1); },
        [](HANDLE h) { return Notify(h, FILE_NOTIFY_CHANGE_SIZE); },
        [](HANDLE h) { return NtClose(h); },
    };
    for (const uint64_t number : std::vector<uint64_t>{0, 4, stale, live + 1, live | 1ull << 32,
                                                       live ^ 1u << 20, 0xFFFFFFFC, ~uint64_t{0}}) {
        const auto handle = reinterpret_cast<HANDLE>(number);
        for (const auto &call : calls)
            EXPECT_EQ(call(handle), STATUS_INVALID_HANDLE) << number << " in call " << &call - calls;
        EXPECT_EQ(CancelIoEx(handle), 6u) << number;
    }
}

// In a process of its own, since a lowered hard limit stays.
TEST_F(Handles, GoBeyondTheSoftLimitAndEndAtTheHardOne)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    MakeFile("file");
    auto exhaust = [this] {
        const rlimit low{.rlim_cur = 50, .rlim_max = 100};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
        // A sanitizer needs a descriptor for its first look at a type: the names' index is seen beforehand.
        EXPECT_EQ(Open("FILE").status, STATUS_SUCCESS);
        std::vector<NtFile> files;
        do {
            files.push_back(Open("file"));
        } while (files.back().status == STATUS_SUCCESS && files.size() < 1000);
        EXPECT_GT(files.size(), 50u);
        EXPECT_EQ(files.back().status, STATUS_TOO_MANY_OPENED_FILES);
        EXPECT_EQ(Open("FILE").status, STATUS_TOO_MANY_OPENED_FILES);
        EXPECT_EQ(Open("new", {.disposition = FILE_CREATE}).status, STATUS_TOO_MANY_OPENED_FILES);
        EXPECT_FALSE(Exists("new"));
        // Nearly a quarter remains for the rest of the process.
        std::vector<std::ifstream> others;
        while (others.size() < 20)
            EXPECT_TRUE(others.emplace_back(root / "file").is_open()) << others.size();
        others.clear();
        files.clear();
        EXPECT_EQ(Open("FILE").status, STATUS_SUCCESS);
        std::filesystem::remove_all(root); // no destructor runs
        _exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(exhaust(), testing::ExitedWithCode(0), "");
}

TEST_F(Handles, AreClosedOnceWhileOthersUseThem)
{
    MakeFile("file", std::string(4096, 'x'));
    for (int round = 0; round < 200; ++round) {
        NtFile file = Open("file");
        std::atomic<int> closed{0};
        AtOnce(4, [&, handle = HANDLE(file)](int i) {
            for (int n = 0; n < 20; ++n) {
                const ReadResult result = ReadAt(handle, 0, 4096);
                EXPECT_TRUE(result.status == STATUS_INVALID_HANDLE ||
                            (result.status == STATUS_SUCCESS && result.text.size() == 4096));
                if (n == i * 5)
                    closed += NtClose(handle) == STATUS_SUCCESS;
            }
        });
        EXPECT_EQ(closed, 1);
        EXPECT_EQ(file.Close(), STATUS_INVALID_HANDLE);
    }
}

// Opens, renames and deletions of the same few names by many threads: whatever the outcome of each, in the
// end nothing is left open and every name can be had.
TEST_F(Handles, ManyThreadsAtTheSameNames)
{
    AtOnce(4, [this](int seed) {
        unsigned state = static_cast<unsigned>(seed) + 1;
        auto pick = [&state](unsigned count) {
            return (state = state * 1664525 + 1013904223) >> 16 & (count - 1);
        };
        for (int i = 0; i < 300; ++i) {
            const std::string name(1, "aAbB"[pick(4)]);
            const NtFile file = Open(name, {.access = kReadWrite | DELETE_ACCESS,
                                            .disposition = pick(2) ? FILE_OPEN_IF : FILE_OVERWRITE_IF,
                                            .share = pick(2) ? 7u : 3u});
            if (file.status != STATUS_SUCCESS)
                continue;
            WriteAt(file, 0, "content");
            const unsigned step = pick(4);
            if (step == 0)
                (void)Delete(file);
            else if (step == 1)
                (void)Rename(file, NtPath(std::string(1, "aAbB"[pick(4)])), Existing::Replace);
            else
                ReadAt(file, 0, 10);
        }
    });
    for (const char *name : {"a", "b"}) {
        const NtFile file = Open(name, {.access = GENERIC_ALL, .disposition = FILE_OPEN_IF, .share = 0});
        EXPECT_EQ(file.status, STATUS_SUCCESS) << name;
        EXPECT_EQ(Delete(file), STATUS_SUCCESS) << name;
    }
    EXPECT_EQ(Listing(), NameSet());
}

} // namespace

} // namespace fodr::nt
