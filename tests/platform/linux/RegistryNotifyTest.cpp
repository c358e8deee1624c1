#include "RealMount.h"
#include "SettingsFixture.h"
#include "platform/Registry.h"
#include "platform/SystemError.h"

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <string>

namespace fodr::platform {
namespace {

constexpr uint32_t kNames = kRegNotifyChangeName;
constexpr uint32_t kValues = kRegNotifyChangeLastSet;

// A key that counts its notifications.
class WatchedKey {
public:
    explicit WatchedKey(const std::string &path)
    {
        EXPECT_EQ(RegistryOpen(RegistryRoot::LocalMachine, path, kRegKeyRead, &key), kErrorSuccess) << path;
    }
    ~WatchedKey() { Close(); }
    WatchedKey(const WatchedKey &) = delete;
    WatchedKey &operator=(const WatchedKey &) = delete;

    uint32_t Arm(uint32_t filter, bool subtree = false)
    {
        return RegistryNotify(
            key, subtree, filter,
            [](void *context) {
                auto *self = static_cast<WatchedKey *>(context);
                std::lock_guard<std::mutex> guard(self->lock);
                ++self->calls;
                self->changed.notify_all();
            },
            this);
    }
    void Await(int count)
    {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return calls >= count; });
    }
    // How often it was told, for good.
    int Close()
    {
        if (key)
            RegistryClose(key);
        key = nullptr;
        return calls;
    }

private:
    RegistryKey key = nullptr;
    std::mutex lock;
    std::condition_variable changed;
    int calls = 0;
};

class RegistryNotification : public testing::Test {
protected:
    // By rename, as every writer should: who writes in place may be heard of half-way, too.
    void WriteFile(const std::string &text) const
    {
        std::ofstream(FilePath() + ".new") << text;
        std::filesystem::rename(FilePath() + ".new", FilePath());
    }
    std::string FilePath() const { return settings.Folder() + "/HKEY_LOCAL_MACHINE.ini"; }

    test::SettingsFixture settings;
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
        other.Await(1);
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
        key.Await(n);
        if (n % 2 == 0)
            WriteFile("[A]\nx=between\n"); // told by the next asking
        ASSERT_EQ(key.Arm(kValues), kErrorSuccess);
        if (n % 2 == 0) {
            key.Await(++n);
            ASSERT_EQ(key.Arm(kValues), kErrorSuccess);
        }
    }
}

TEST_F(RegistryNotification, EveryWayToReplaceAFileCounts)
{
    WriteFile("[A]\nx=0\n");
    const test::ScratchFolder elsewhere;
    WatchedKey key("A");
    int told = 0;
    const auto expectTold = [&](const char *what) {
        SCOPED_TRACE(what);
        key.Await(++told);
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
    RegistryKey key = nullptr;
    ASSERT_EQ(RegistryCreate(RegistryRoot::LocalMachine, "Software\\fodr", kRegKeyAllAccess, &key),
              kErrorSuccess);
    RegistryClose(key);
    root.Await(1);
}

} // namespace
} // namespace fodr::platform
