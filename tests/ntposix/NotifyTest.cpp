#include "ntposix/NtFixture.h"

#include <fcntl.h>

#include <functional>
#include <future>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace fodr::nt {
namespace {

constexpr uint32_t kNames = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME;

NTSTATUS Notify(HANDLE folder, uint32_t filter, bool tree = false)
{
    IO_STATUS_BLOCK io{};
    uint8_t scratch[32] = {};
    const NTSTATUS status = NtNotifyChangeDirectoryFile(folder, nullptr, nullptr, nullptr, &io, scratch,
                                                        sizeof(scratch), filter, tree);
    EXPECT_EQ(io.Status, status);
    EXPECT_EQ(io.Information, 0u);
    return status;
}

std::future<NTSTATUS> NotifyAsync(HANDLE folder, uint32_t filter, bool tree = false)
{
    return std::async(std::launch::async, Notify, folder, filter, tree);
}

// Nothing here waits for time to pass. Changes reach all watches of the process in one order, so a change
// that a watch of the fixture's own has seen has overtaken none (Settle). And since a watch stays from the
// first call on, a change between two calls ends the second one wherever its thread is.
class ChangeNotify : public NtFixture {
protected:
    ChangeNotify()
    {
        MakeFolder("watched");
        MakeFolder("tide");
        tide = Folder("tide");
        Arm(tide, FILE_NOTIFY_CHANGE_FILE_NAME);
    }

    NtFile Folder(std::string_view name) const { return Open(name, {.options = FILE_DIRECTORY_FILE}); }

    // Starts a call and cancels it, which leaves the watch set up.
    void Arm(HANDLE folder, uint32_t filter)
    {
        auto call = NotifyAsync(folder, filter);
        while (CancelIoEx(folder) != 0)
            std::this_thread::yield();
        ASSERT_EQ(call.get(), STATUS_CANCELLED);
    }
    // The same for a tree, whose setting up a cancel would end: lets one change end the call.
    void ArmTree(HANDLE folder, std::string_view name, uint32_t filter)
    {
        auto call = NotifyAsync(folder, filter | FILE_NOTIFY_CHANGE_DIR_NAME, true);
        while (call.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            const auto probe = root / name / "probe";
            std::filesystem::create_directory(probe);
            std::filesystem::remove(probe);
            Settle();
        }
        ASSERT_EQ(call.get(), STATUS_NOTIFY_ENUM_DIR);
        std::filesystem::create_directory(root / name / "probe");
        Settle();
        ASSERT_EQ(Notify(folder, filter, true), STATUS_NOTIFY_ENUM_DIR);
    }
    // Every change made before has been dealt with.
    void Settle()
    {
        MakeFile("tide/" + std::to_string(tides++));
        ASSERT_EQ(Notify(tide, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_NOTIFY_ENUM_DIR);
    }
    // Whether a change is waiting to be told. A call that has nothing to tell is there to be cancelled. (A
    // cancel that comes before the call has looked hides a change, once in a long while, and never shows a
    // false one.)
    bool IsPending(HANDLE folder, uint32_t filter, bool tree = false)
    {
        Settle();
        auto call = NotifyAsync(folder, filter, tree);
        Settle();
        while (call.wait_for(std::chrono::seconds(0)) != std::future_status::ready && CancelIoEx(folder) != 0)
            std::this_thread::yield();
        const NTSTATUS status = call.get();
        EXPECT_TRUE(status == STATUS_CANCELLED || status == STATUS_NOTIFY_ENUM_DIR);
        return status == STATUS_NOTIFY_ENUM_DIR;
    }

    NtFile tide;
    int tides = 0;
};

TEST_F(ChangeNotify, FiltersChooseTheChanges)
{
    struct Case {
        const char *what;
        std::function<void()> change;
        uint32_t tells;  // each of these alone hears of it
        uint32_t silent; // these together don't
    };
    constexpr uint32_t kAll = 0xFFF;
    constexpr uint32_t kContent = FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE;
    const Case cases[] = {
        {"new file", [&] { MakeFile("watched/new"); }, FILE_NOTIFY_CHANGE_FILE_NAME,
         kAll & ~FILE_NOTIFY_CHANGE_FILE_NAME},
        {"new folder", [&] { MakeFolder("watched/newdir"); }, FILE_NOTIFY_CHANGE_DIR_NAME,
         kAll & ~FILE_NOTIFY_CHANGE_DIR_NAME},
        {"removal", [&] { std::filesystem::remove(root / "watched/f"); }, FILE_NOTIFY_CHANGE_FILE_NAME,
         FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_SIZE},
        {"rename", [&] { std::filesystem::rename(root / "watched/f", root / "watched/g"); },
         FILE_NOTIFY_CHANGE_FILE_NAME, kAll & ~FILE_NOTIFY_CHANGE_FILE_NAME},
        {"folder leaves", [&] { std::filesystem::rename(root / "watched/d", root / "d"); },
         FILE_NOTIFY_CHANGE_DIR_NAME, kAll & ~FILE_NOTIFY_CHANGE_DIR_NAME},
        {"write", [&] { MakeFile("watched/f", "more"); }, kContent, kAll & ~kContent},
        {"mode", [&] { chmod(Path("watched/f").c_str(), 0400); },
         FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SECURITY, kNames | FILE_NOTIFY_CHANGE_SIZE},
        {"listing", [&] { std::filesystem::directory_iterator(root / "watched/d"); }, 0, kAll},
        {"deeper", [&] { MakeFile("watched/d/x", "y"); }, 0, kNames | kContent},
        {"elsewhere", [&] { MakeFile("other", "y"); }, 0, kAll},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(root / "watched");
        std::filesystem::remove_all(root / "d");
        MakeFolder("watched/d/inner");
        MakeFile("watched/f", "text");
        const NtFile quiet = Folder("watched");
        Arm(quiet, c.silent);
        std::vector<std::pair<NtFile, uint32_t>> told;
        for (uint32_t bit = 1; bit <= 0x800; bit <<= 1) {
            if (c.tells & bit) {
                told.emplace_back(Folder("watched"), bit);
                Arm(told.back().first, bit);
            }
        }
        c.change();
        for (const auto &[folder, bit] : told)
            EXPECT_EQ(Notify(folder, bit), STATUS_NOTIFY_ENUM_DIR) << bit;
        EXPECT_FALSE(IsPending(quiet, c.silent));
    }
}

TEST_F(ChangeNotify, ChangesBetweenTwoCallsEndTheSecondAndAreToldOnce)
{
    const NtFile folder = Folder("watched");
    MakeFile("watched/before"); // nobody watches yet
    Arm(folder, kNames);
    MakeFile("watched/a");
    MakeFile("watched/b");
    Settle();
    EXPECT_EQ(Notify(folder, kNames), STATUS_NOTIFY_ENUM_DIR);
    EXPECT_FALSE(IsPending(folder, kNames));
    // The filter of the first call holds.
    MakeFile("watched/a", "content");
    EXPECT_FALSE(IsPending(folder, FILE_NOTIFY_CHANGE_SIZE));
}

TEST_F(ChangeNotify, WatchesOfOneFolderDontDisturbEachOther)
{
    const NtFile names = Folder("watched");
    Arm(names, kNames);
    {
        const NtFile sizes = Folder("watched");
        Arm(sizes, FILE_NOTIFY_CHANGE_SIZE);
        MakeFile("watched/a", "x");
        EXPECT_EQ(Notify(sizes, FILE_NOTIFY_CHANGE_SIZE), STATUS_NOTIFY_ENUM_DIR);
        EXPECT_EQ(Notify(names, kNames), STATUS_NOTIFY_ENUM_DIR);
    }
    MakeFile("watched/b");
    EXPECT_EQ(Notify(names, kNames), STATUS_NOTIFY_ENUM_DIR);
}

TEST_F(ChangeNotify, CloseAndCancelEndACall)
{
    EXPECT_EQ(CancelIoEx(tide), 1168u);
    for (const bool tree : {false, true}) {
        bool cleaned = false;
        while (!cleaned) { // until the call had begun when its handle was closed
            NtFile folder = Folder("watched");
            auto call = NotifyAsync(folder, kNames, tree);
            std::this_thread::yield();
            folder.Close();
            const NTSTATUS status = call.get();
            cleaned = status == STATUS_NOTIFY_CLEANUP;
            EXPECT_TRUE(cleaned || status == STATUS_INVALID_HANDLE) << std::hex << status;
        }
    }
}

TEST_F(ChangeNotify, RemovalOfTheFolderEndsCalls)
{
    const NtFile local = Folder("watched");
    Arm(local, kNames);
    std::filesystem::remove(root / "watched");
    EXPECT_EQ(Notify(local, kNames), STATUS_DELETE_PENDING);
    EXPECT_EQ(Notify(local, kNames), STATUS_DELETE_PENDING);

    MakeFolder("marked");
    const NtFile watcher = Folder("marked");
    Arm(watcher, kNames);
    const NtFile remover = Open("marked", {.access = DELETE_ACCESS, .options = FILE_DIRECTORY_FILE});
    FILE_DISPOSITION_INFORMATION deleteIt{1};
    IO_STATUS_BLOCK io{};
    ASSERT_EQ(NtSetInformationFile(remover, &io, &deleteIt, sizeof(deleteIt), FileDispositionInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(Notify(watcher, kNames), STATUS_DELETE_PENDING);
}

TEST_F(ChangeNotify, TreesFollowTheirFolders)
{
    constexpr uint32_t kFiles = FILE_NOTIFY_CHANGE_FILE_NAME;
    MakeFolder("watched/old/deep");
    MakeFolder("outside/inner");
    const NtFile tree = Folder("watched");
    ArmTree(tree, "watched", kFiles);
    int drains = 0;
    // All that happened before is told with one more change.
    const auto drain = [&] {
        MakeFile("watched/drain" + std::to_string(drains++));
        Settle();
        ASSERT_EQ(Notify(tree, kFiles, true), STATUS_NOTIFY_ENUM_DIR);
    };
    const auto tells = [&](const std::string &where) {
        drain();
        MakeFile(where);
        EXPECT_EQ(Notify(tree, kFiles, true), STATUS_NOTIFY_ENUM_DIR) << where;
    };
    tells("watched/old/deep/a");
    // Folders that appear, level by level and with all that is in them already.
    MakeFolder("watched/new");
    tells("watched/new/a");
    MakeFolder("watched/x/y/z");
    tells("watched/x/y/z/a");
    std::filesystem::rename(root / "outside", root / "watched/moved");
    tells("watched/moved/inner/a");
    std::filesystem::rename(root / "watched/moved", root / "watched/old/renamed");
    tells("watched/old/renamed/inner/b");
    // What left the tree is none of its business any more, and a link leads out of it.
    std::filesystem::rename(root / "watched/old", root / "gone");
    ASSERT_EQ(symlink("../gone", Path("watched/link").c_str()), 0);
    drain();
    MakeFile("gone/deep/b");
    EXPECT_FALSE(IsPending(tree, kFiles, true));
}

// Files that come into a new folder before the watch on it does are no less a change.
TEST_F(ChangeNotify, ATreeMissesNothingInAFolderThatFillsAtOnce)
{
    const NtFile tree = Folder("watched");
    auto call = NotifyAsync(tree, FILE_NOTIFY_CHANGE_SIZE, true);
    for (int i = 0; call.wait_for(std::chrono::seconds(0)) != std::future_status::ready; ++i) {
        const std::string folder = "watched/" + std::to_string(i) + "/a/b";
        MakeFolder(folder);
        MakeFile(folder + "/f", "x");
    }
    EXPECT_EQ(call.get(), STATUS_NOTIFY_ENUM_DIR);
    for (int i = 0; i < 50; ++i) {
        const std::string folder = "watched/later" + std::to_string(i) + "/a/b";
        MakeFolder(folder);
        MakeFile(folder + "/f", "x");
        EXPECT_EQ(Notify(tree, FILE_NOTIFY_CHANGE_SIZE, true), STATUS_NOTIFY_ENUM_DIR);
    }
}

TEST_F(ChangeNotify, AThousandCallsWaitAtOnce)
{
    constexpr size_t kCalls = 1000;
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < 2 * kCalls)
        GTEST_SKIP() << "needs " << 2 * kCalls << " descriptors";
    std::vector<NtFile> folders;
    for (size_t i = 0; i < kCalls; ++i) {
        folders.push_back(Folder(i % 2 ? "watched" : "tide"));
        Arm(folders.back(), kNames);
    }
    std::vector<std::future<NTSTATUS>> calls;
    for (const NtFile &folder : folders)
        calls.push_back(NotifyAsync(folder, kNames));
    EXPECT_EQ(Open("watched/f", {.access = GENERIC_WRITE, .disposition = FILE_CREATE}).status,
              STATUS_SUCCESS);
    MakeFile("tide/f");
    for (auto &call : calls)
        EXPECT_EQ(call.get(), STATUS_NOTIFY_ENUM_DIR);
}

TEST_F(ChangeNotify, RefusesWhatIsNoWatch)
{
    const NtFile folder = Folder("watched");
    EXPECT_EQ(Notify(folder, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Notify(folder, 0x1000), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Notify(nullptr, kNames), STATUS_INVALID_HANDLE);
    EXPECT_EQ(Notify(Open("watched", {.access = FILE_READ_ATTRIBUTES}), kNames), STATUS_ACCESS_DENIED);
    MakeFile("f");
    EXPECT_EQ(Notify(Open("f"), kNames), STATUS_INVALID_PARAMETER);
}

} // namespace
} // namespace fodr::nt
