#include "FailingCalls.h"
#include "Mailbox.h"
#include "lib/misc/Fd.h"
#include "ntposix/ChangeMonitor.h"
#include "ntposix/NtWords.h"

#include <fcntl.h>

#include <atomic>
#include <functional>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace fodr::nt {
namespace {

constexpr uint32_t kNames = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME;

std::future<NTSTATUS> NotifyAsync(HANDLE folder, uint32_t filter, bool tree = false)
{
    return std::async(std::launch::async, Notify, folder, filter, tree);
}

bool HasEnded(const std::future<NTSTATUS> &call)
{
    return call.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
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
        tide = Armed("tide", FILE_NOTIFY_CHANGE_FILE_NAME);
    }

    // A folder that is watched: a call has begun, and was cancelled.
    NtFile Armed(std::string_view name, uint32_t filter) const
    {
        NtFile folder = Folder(name);
        auto call = NotifyAsync(folder, filter);
        CancelCall(folder);
        EXPECT_EQ(call.get(), STATUS_CANCELLED);
        return folder;
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
        while (!HasEnded(call) && CancelIoEx(folder) != 0)
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
    constexpr uint32_t kAll = 0xFFF, kFiles = FILE_NOTIFY_CHANGE_FILE_NAME,
                       kFolders = FILE_NOTIFY_CHANGE_DIR_NAME, kSize = FILE_NOTIFY_CHANGE_SIZE,
                       kContent = kSize | FILE_NOTIFY_CHANGE_LAST_WRITE,
                       kMode = FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SECURITY;
    const struct {
        const char *what;
        std::function<void()> change;
        uint32_t tells;  // each of these alone hears of it
        uint32_t silent; // these together don't
    } cases[] = {
        {"new file", [&] { MakeFile("watched/new"); }, kFiles, kAll & ~kFiles},
        {"new folder", [&] { MakeFolder("watched/newdir"); }, kFolders, kAll & ~kFolders},
        {"removal", [&] { std::filesystem::remove(root / "watched/f"); }, kFiles, kFolders | kSize},
        {"rename", [&] { OthersMove("watched/f", "watched/g"); }, kFiles, kAll & ~kFiles},
        {"folder leaves", [&] { OthersMove("watched/d", "d"); }, kFolders, kAll & ~kFolders},
        {"write", [&] { MakeFile("watched/f", "more"); }, kContent, kAll & ~kContent},
        {"mode", [&] { chmod(Path("watched/f").c_str(), 0400); }, kMode, kNames | kSize},
        {"listing", [&] { std::filesystem::directory_iterator(root / "watched/d"); }, 0, kAll},
        {"deeper", [&] { MakeFile("watched/d/x", "y"); }, 0, kNames | kContent},
        {"elsewhere", [&] { MakeFile("other", "y"); }, 0, kAll},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(root / "watched");
        std::filesystem::remove_all(root / "d");
        MakeFolder("watched/d/inner");
        MakeFile("watched/f", "text");
        const NtFile quiet = Armed("watched", c.silent);
        std::vector<std::pair<NtFile, uint32_t>> told;
        for (uint32_t bit = 1; bit <= c.tells; bit <<= 1) {
            if (c.tells & bit)
                told.emplace_back(Armed("watched", bit), bit);
        }
        c.change();
        for (const auto &[folder, bit] : told)
            EXPECT_EQ(Notify(folder, bit), STATUS_NOTIFY_ENUM_DIR) << bit;
        EXPECT_FALSE(IsPending(quiet, c.silent));
    }
}

TEST_F(ChangeNotify, ChangesBetweenTwoCallsEndTheSecondAndAreToldOnce)
{
    MakeFile("watched/before"); // nobody watches yet
    const NtFile folder = Armed("watched", kNames);
    EXPECT_FALSE(IsPending(folder, kNames));
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
    const NtFile names = Armed("watched", kNames);
    {
        const NtFile sizes = Armed("watched", FILE_NOTIFY_CHANGE_SIZE);
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
    for (const bool tree : {false, true})
        ExpectCloseEnds([this] { return Folder("watched"); },
                        [tree](HANDLE folder) { return Notify(folder, kNames, tree); },
                        STATUS_NOTIFY_CLEANUP);
}

TEST_F(ChangeNotify, RemovalOfTheFolderEndsCalls)
{
    const NtFile removed = Armed("watched", kNames);
    std::filesystem::remove(root / "watched");
    EXPECT_EQ(Notify(removed, kNames), STATUS_DELETE_PENDING);
    EXPECT_EQ(Notify(removed, kNames), STATUS_DELETE_PENDING);

    MakeFolder("marked");
    const NtFile marked = Armed("marked", kNames);
    const NtFile remover = Doomed("marked");
    EXPECT_EQ(Delete(remover), STATUS_SUCCESS);
    EXPECT_EQ(Notify(marked, kNames), STATUS_DELETE_PENDING);
}

// What others do to a folder that is watched, whether the folder above it can be watched or not.
TEST_F(ChangeNotify, RemovalByOthersEndsCallsHoweverItIsDone)
{
    const auto run = [](const std::string &command) { ASSERT_EQ(system(command.c_str()), 0) << command; };
    const struct {
        const char *what;
        std::function<void(const std::string &folder)> remove;
    } cases[] = {
        {"with its content", [&](const std::string &folder) { run("rm -rf " + folder); }},
        {"replaced",
         [&](const std::string &folder) { run("mkdir " + folder + "2 && mv -T " + folder + "2 " + folder); }},
        {"moved before",
         [&](const std::string &folder) {
             run("mkdir " + folder + ".d && mv " + folder + " " + folder + ".d && rm -r " + folder + ".d");
         }},
    };
    for (const bool blind : {false, true}) {
        for (const auto &c : cases) {
            SCOPED_TRACE(testing::Message() << c.what << (blind ? ", unseen" : ""));
            const std::string name = "gone" + std::to_string(&c - cases) + (blind ? "b" : "");
            MakeFolder(name);
            const NtFile folder = Folder(name);
            test::OnSpareThread([&] {
                if (blind)
                    test::FailFromNowOn(SYS_inotify_add_watch, EACCES, 2,
                                        IN_DELETE | IN_MOVED_TO | IN_ONLYDIR);
                auto cancelled = std::async(std::launch::async, [&] { CancelCall(folder); });
                EXPECT_EQ(Notify(folder, FILE_NOTIFY_CHANGE_SIZE), STATUS_CANCELLED);
            });
            auto call = NotifyAsync(folder, FILE_NOTIFY_CHANGE_SIZE);
            c.remove(Path(name));
            EXPECT_EQ(call.get(), STATUS_DELETE_PENDING);
            EXPECT_EQ(Notify(folder, FILE_NOTIFY_CHANGE_SIZE), STATUS_DELETE_PENDING);
        }
    }
}

TEST_F(ChangeNotify, TreesFollowTheirFolders)
{
    constexpr uint32_t kFiles = FILE_NOTIFY_CHANGE_FILE_NAME;
    MakeFolder("watched/old/deep");
    MakeFolder("outside/inner");
    MakeFile("outside/inner/file");
    const NtFile tree = Folder("watched");
    // The setting up of a tree is what a cancel would end: changes come until one ends the call.
    auto call = NotifyAsync(tree, kFiles, true);
    for (int i = 0; !HasEnded(call); ++i)
        MakeFile("watched/old/deep/" + std::to_string(i));
    ASSERT_EQ(call.get(), STATUS_NOTIFY_ENUM_DIR);
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
    // Folders that appear, level by level and with all that is in them already.
    MakeFolder("watched/new");
    tells("watched/new/a");
    MakeFolder("watched/x/y/z");
    tells("watched/x/y/z/a");
    drain();
    OthersMove("outside", "watched/moved");
    EXPECT_EQ(Notify(tree, kFiles, true), STATUS_NOTIFY_ENUM_DIR); // the file that came along
    tells("watched/moved/inner/a");
    OthersMove("watched/moved", "watched/old/renamed");
    tells("watched/old/renamed/inner/b");
    // What left the tree is none of its business any more, and a link leads out of it.
    OthersMove("watched/old", "gone");
    MakeSymlink("../gone", "watched/link");
    drain();
    MakeFile("gone/deep/b");
    EXPECT_FALSE(IsPending(tree, kFiles, true));
}

// What is kept of a tree outlives the handle that was the first to watch it.
TEST_F(ChangeNotify, HandlesThatWatchOneTreeShareItsFolders)
{
    constexpr uint32_t kFiles = FILE_NOTIFY_CHANGE_FILE_NAME;
    MakeFolder("watched/sub/deep");
    std::vector<NtFile> trees;
    for (int n = 0; n < 3; ++n) {
        trees.push_back(Folder("watched"));
        auto call = NotifyAsync(trees.back(), kFiles, true);
        for (int i = 0; !HasEnded(call); ++i)
            MakeFile("watched/" + std::to_string(n) + "-" + std::to_string(i));
        ASSERT_EQ(call.get(), STATUS_NOTIFY_ENUM_DIR);
    }
    trees.erase(trees.begin());
    MakeFolder("watched/sub/new");
    Settle();
    MakeFile("watched/sub/new/file");
    for (const NtFile &tree : trees)
        EXPECT_EQ(Notify(tree, kFiles, true), STATUS_NOTIFY_ENUM_DIR);
}

TEST_F(ChangeNotify, FoldersOfAllTreesHaveALimit)
{
    constexpr uint32_t kFolders = 400; // and the watched one
    for (uint32_t n = 0; n < kFolders; ++n)
        MakeFolder("watched/" + std::to_string(n));
    const Fd directory(open(Path("watched").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat facts;
    ASSERT_EQ(fstat(directory.Get(), &facts), 0);
    const auto monitor = ntposix::ChangeMonitor::Get();
    ntposix::BlockedCalls calls;
    ntposix::BlockedCall call(calls, STATUS_NOTIFY_CLEANUP);
    std::vector<std::shared_ptr<ntposix::ChangeWatch>> watches;
    const auto add = [&](uint32_t filter) {
        watches.push_back(std::make_shared<ntposix::ChangeWatch>(
            directory.Get(), ntposix::FileKey{facts.st_dev, facts.st_ino}, filter, true));
        return monitor->Add(watches.back(), call);
    };
    // Each filter needs folders of its own; the handles that share one don't.
    constexpr uint32_t kFit = ntposix::ChangeMonitor::kMostFolders / (kFolders + 1);
    for (uint32_t filter = 1; filter <= kFit; ++filter)
        ASSERT_EQ(add(filter), STATUS_SUCCESS) << filter;
    EXPECT_EQ(add(kFit + 1), STATUS_INSUFFICIENT_RESOURCES);
    for (int n = 0; n < 10; ++n)
        EXPECT_EQ(add(1), STATUS_SUCCESS);
    for (const auto &watch : watches)
        monitor->Remove(watch.get());
    watches.clear();
    EXPECT_EQ(add(kFit + 1), STATUS_SUCCESS);
    monitor->Remove(watches.back().get());
}

// Nobody waits for what is cancelled, closed or told to others.
TEST_F(ChangeNotify, OnlyNoticesOfTheSameReceiverAreWaitedFor)
{
    NoticeOrder order, other;
    const NtFile folder = Folder("watched");
    test::Signal ended, go;
    std::thread watcher([&] {
        const NoticeOrder::Delivery delivery(other);
        EXPECT_EQ(Notify(folder, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_NOTIFY_ENUM_DIR);
        ended.Set();
        go.Wait(); // is being sent
    });
    std::thread cancelled([&] {
        const NtFile own = Folder("watched");
        std::thread canceller([&] { CancelCall(own); });
        const NoticeOrder::Delivery delivery(order);
        EXPECT_EQ(Notify(own, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_CANCELLED);
        canceller.join();
    });
    cancelled.join();
    while (NoticeOrder::State::Of(other).waiting == 0)
        std::this_thread::yield();
    MakeFile("watched/f");
    ended.Wait();
    order.Settle();
    std::atomic<bool> gone{false};
    test::Signal begun;
    std::thread waits([&] {
        begun.Set();
        other.Settle();
        EXPECT_TRUE(gone);
    });
    begun.Wait();
    order.Settle();
    std::this_thread::yield();
    gone = true;
    go.Set();
    watcher.join();
    waits.join();
}

TEST_F(ChangeNotify, RefusesWhatIsNoWatch)
{
    const NtFile folder = Folder("watched");
    for (const uint32_t filter : {0u, 0x1000u})
        EXPECT_EQ(Notify(folder, filter), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Notify(Open("watched", {.access = FILE_READ_ATTRIBUTES}), kNames), STATUS_ACCESS_DENIED);
    MakeFile("f");
    EXPECT_EQ(Notify(Open("f"), kNames), STATUS_INVALID_PARAMETER);
}

} // namespace
} // namespace fodr::nt
