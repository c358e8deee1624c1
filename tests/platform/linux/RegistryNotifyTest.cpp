#include "Mailbox.h"
#include "RealMount.h"
#include "platform/RegistryFixture.h"

#include <filesystem>
#include <fstream>
#include <utility>

namespace fodr::platform {
namespace {

constexpr uint32_t kNames = kRegNotifyChangeName;
constexpr uint32_t kValues = kRegNotifyChangeLastSet;

// A key that keeps its notifications.
struct WatchedKey : Key {
    using Key::Key;
    ~WatchedKey() { Close(); } // while there is somebody to tell
    uint32_t Arm(uint32_t filter, bool subtree = false)
    {
        return RegistryNotify(
            handle, subtree, filter, [](void *told) { static_cast<test::Mailbox<int> *>(told)->Put(1); },
            &notices);
    }
    void Await() { notices.Take(); }
    // How many it has, for good.
    int Close()
    {
        if (handle)
            RegistryClose(std::exchange(handle, nullptr));
        int count = 0;
        for (; !notices.IsEmpty(); ++count)
            notices.Take();
        return count;
    }

    test::Mailbox<int> notices;
};

class RegistryNotification : public Registry {
protected:
    // By rename, as every writer should: who writes in place may be heard of half-way, too.
    void WriteFile(const std::string &text) const
    {
        std::ofstream(FilePath() + ".new") << text;
        std::filesystem::rename(FilePath() + ".new", FilePath());
    }
    std::string FilePath() const { return settings.Folder() + "/HKEY_LOCAL_MACHINE.ini"; }
};

TEST_F(RegistryNotification, OnlyWhatWasAskedForIsTold)
{
    const std::string before = "[A]\nx=1\n[A\\B]\ny=1\n[Other]\nz=1\n";
    const struct {
        uint32_t filter;
        bool subtree;
        const char *after; // with z=2, so that the other key is told in any case
        bool isTold;
    } rows[] = {
        {kValues, false, "[A]\nx=2\n[A\\B]\ny=1\n", true},
        {kValues, false, "[A]\nx=dword:1\n[A\\B]\ny=1\n", true},
        {kValues, false, "[A]\n[A\\B]\ny=1\n", true},
        {kValues, false, "[a]\nX = 1\n[A\\b]\nnew=1\n", false},
        {kValues, true, "[A]\nx=1\n[A\\B]\ny=2\n", true},
        {kNames, false, "[A]\nx=2\nmore=1\n[A\\B]\ny=2\n", false},
        {kNames, false, "[A]\nx=1\n[A\\B]\ny=1\n[A\\C]\n", true},
        {kNames, false, "[A]\nx=1\n", true},
        {kNames, false, "[A]\nx=1\n[A\\B]\ny=1\n[A\\B\\C]\n", false},
        {kNames, true, "[A]\nx=1\n[A\\B]\ny=1\n[A\\B\\C]\n", true},
        {kNames | kValues, true, "", true},
        {kNames, false, "[A\\B\\C]\n", false}, // both are still there
        {kNames | kValues, true, "[A]\nx=1\n[A\\B]\ny=1\n[AB]\nx=1\n", false},
    };
    for (const auto &row : rows) {
        WriteFile(before);
        WatchedKey key("A");
        WatchedKey other("Other");
        ASSERT_EQ(key.Arm(row.filter, row.subtree), kErrorSuccess);
        ASSERT_EQ(other.Arm(kValues), kErrorSuccess);
        WriteFile(row.after + std::string("[Other]\nz=2\n"));
        other.Await();
        EXPECT_EQ(key.Close(), row.isTold ? 1 : 0) << row.after << row.filter << row.subtree;
    }
}

TEST_F(RegistryNotification, NoChangeIsLostBetweenTwoCalls)
{
    WriteFile("[A]\nx=0\n");
    WatchedKey key("A");
    ASSERT_EQ(key.Arm(kValues), kErrorSuccess);
    for (int n = 1; n <= 50; ++n) {
        WriteFile("[A]\nx=" + std::to_string(n) + "\n");
        key.Await();
        if (n % 2 == 0)
            WriteFile("[A]\nx=between\n"); // told by the next asking
        ASSERT_EQ(key.Arm(kValues), kErrorSuccess);
        if (n % 2 == 0) {
            ++n;
            key.Await();
            ASSERT_EQ(key.Arm(kValues), kErrorSuccess);
        }
    }
}

TEST_F(RegistryNotification, EveryWayToReplaceAFileCounts)
{
    WriteFile("[A]\nx=0\n");
    const test::ScratchFolder elsewhere;
    WatchedKey key("A");
    const auto expectTold = [&](const char *what) {
        SCOPED_TRACE(what);
        key.Await();
        ASSERT_EQ(key.Arm(kNames | kValues), kErrorSuccess);
    };
    ASSERT_EQ(key.Arm(kNames | kValues), kErrorSuccess);
    WriteFile("[A]\nx=1\n");
    expectTold("rename over it");
    std::filesystem::remove(FilePath());
    expectTold("removal");
    std::ofstream(elsewhere / "real.ini") << "[A]\nx=2\n";
    std::filesystem::create_symlink(elsewhere / "real.ini", FilePath());
    expectTold("a link to another folder");
    std::ofstream(elsewhere / "real.ini") << "[A]\nx=3\n";
    expectTold("a change behind the link");
    WriteFile("[A]\nx=4\n[broken\n");
    expectTold("a malformed file");
    WriteFile("");
    expectTold("an empty one in its place");
    std::filesystem::remove_all(settings.Folder());
    std::filesystem::create_directories(settings.Folder());
    std::ofstream(FilePath()) << "[A]\nx=5\n";
    expectTold("a new folder");
    EXPECT_EQ(RegistryNotify(
                  nullptr, false, kNames, [](void *) {}, nullptr),
              kErrorInvalidHandle);
}

TEST(RegistryNotificationWithoutFolder, TheFirstKeyIsTold)
{
    const test::ScratchFolder scratch;
    const test::EnvironmentVariable variable("FODR_SETTINGS_DIR", (scratch / "not/yet").c_str());
    WatchedKey root("Software"); // which every store has
    ASSERT_EQ(root.Arm(kNames), kErrorSuccess);
    EXPECT_EQ(Key("Software\\fodr", true).error, kErrorSuccess);
    root.Await();
}

} // namespace
} // namespace fodr::platform
