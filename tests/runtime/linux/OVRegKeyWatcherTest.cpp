#include "SettingsFixture.h"
#include "runtime/CapturedLog.h"
#include "runtime/OVRegKey.h"
#include "runtime/PollItems.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utility>

namespace fodr {
namespace {

class Watcher : public OVRegKeyWatcher {
public:
    explicit Watcher(const std::string &keyPath, bool subtree = false)
        : OVRegKeyWatcher(keyPath, Reg64Bit, subtree)
    {}
    bool Run(bool timedOut) override
    {
        const bool keep = OVRegKeyWatcher::Run(timedOut);
        if (timedOut)
            armed.Set();
        else
            ++notices;
        return keep;
    }
    bool OnKeyChanged() override
    {
        ++changes;
        changed.Set();
        return goOn;
    }

    std::atomic<int> changes{0};
    OVEvent changed{false, false};
    std::atomic<int> notices{0};
    OVEvent armed{false, false};
    bool goOn = true;
};

class KeyWatcher : public testing::Test {
protected:
    const test::SettingsFixture settings;
};

// The watcher's own steps, one after the other: the thread that calls them is tested elsewhere.
TEST_F(KeyWatcher, AKeyIsFollowedThroughItsLife)
{
    RCPtr<Watcher> watcher(new Watcher("HKLM\\Software\\a\\b\\c"));
    watcher->SetTimeoutMS(0, true); // as Start does
    EXPECT_FALSE(watcher->IsKeyFound());
    ASSERT_TRUE(watcher->Run(true)); // the first poll
    EXPECT_EQ(watcher->GetTimeoutMS(), -1);
    EXPECT_EQ(watcher->changes, 0);
    const std::tuple<const char *, const char *, bool, int> steps[] = {
        {"one level down", "[SOFTWARE\\a]\n", false, 0},
        {"next to it", "[SOFTWARE\\a\\x\\c]\n", false, 0},
        {"it comes", "[SOFTWARE\\a\\b\\c]\nv=1\n", true, 1},
        {"a value changes", "[SOFTWARE\\a\\b\\c]\nv=2\n", true, 2},
        {"deleted and made again meanwhile", "[SOFTWARE\\a\\b\\c]\nv=2\nw=1\n", true, 3},
        {"it goes", "[SOFTWARE\\a]\n", false, 4},
        {"nothing of it is left", "", false, 4},
    };
    for (const auto &[what, store, found, changes] : steps) {
        settings.Store(store);
        for (int notices = 0; notices < 2; ++notices) { // within one settling time
            EXPECT_TRUE(watcher->Run(false));
            EXPECT_EQ(watcher->GetTimeoutMS(), OVRegKeyWatcher::kSettlingMS);
        }
        EXPECT_TRUE(watcher->Run(true));
        EXPECT_EQ(watcher->GetTimeoutMS(), -1);
        EXPECT_EQ(watcher->IsKeyFound(), found) << what;
        EXPECT_EQ(watcher->changes, changes) << what;
    }
}

TEST_F(KeyWatcher, TheHandlerCanEndItAndABadPathIsNotWatched)
{
    settings.Store("[a]\n");
    RCPtr<Watcher> watcher(new Watcher("HKLM\\a"));
    watcher->goOn = false;
    watcher->SetTimeoutMS(0, true);
    EXPECT_TRUE(watcher->Run(true)); // the first poll, of a key that is there, is no change
    EXPECT_TRUE(watcher->Run(false));
    EXPECT_FALSE(watcher->Run(true));

    CapturedLog log(LOG_LEVEL_DEBUG);
    RCPtr<Watcher> lost(new Watcher("HKXX\\a\\b"));
    lost->SetTimeoutMS(0, true);
    EXPECT_FALSE(lost->Run(true));
    EXPECT_FALSE(lost->Start(nullptr));
    lost->Stop();
    EXPECT_THAT(
        CapturedLog::Lines(),
        testing::IsSupersetOf({"W OVRegKeyWatcher::OpenRegKey(): Not watching \"HKXX\\a\\b\"",
                               "D OVRegKeyWatcher::Start(): OVRegKeyWatcher(HKXX\\a\\b): pollThread == NULL",
                               "D OVRegKeyWatcher::Stop(): Failed to remove OVRegKeyWatcher(HKXX\\a\\b)"}));
}

TEST_F(KeyWatcher, ValuesThatAreFollowedAreReloaded)
{
    class Follower : public OVRegValueWatcher {
    public:
        using OVRegValueWatcher::OVRegValueWatcher;
        void OnValueChanged() override { ++changes; }
        int changes = 0;
    };
    settings.Store("[a]\nv=dword:1\nw=dword:1\n");
    RCPtr<Watcher> watcher(new Watcher("HKLM\\a"));
    RCPtr<Follower> v(new Follower("HKLM\\a", "v"));
    RCPtr<Follower> w(new Follower("HKLM\\a", "w"));
    for (const auto &follower : {v, w}) {
        follower->Load(false, LOG_LEVEL_VERBOSE);
        watcher->AddValueWatcher(follower);
    }
    watcher->AddValueWatcher(RCPtr<Follower>(new Follower("HKLM\\a", "gone")));
    settings.Store("[a]\nv=dword:2\nw=dword:1\n");
    watcher->Run(false);
    EXPECT_TRUE(watcher->Run(true));
    EXPECT_EQ(v->changes, 1);
    EXPECT_EQ(v->ToDword(0), 2u);
    EXPECT_EQ(w->changes, 0);
    EXPECT_EQ(watcher->GetValue("v", true)->ToDword(0), 2u);
}

// What the watcher asks to be told of. Somebody who is told of everything says when a notice would be there.
TEST_F(KeyWatcher, OnlyWhatConcernsTheKeyWakesTheThread)
{
    const std::string before = "[a]\nv=1\n[a\\b]\nv=1\n";
    const struct {
        const char *watched;
        bool subtree;
        const char *after;
        bool told;
    } rows[] = {
        {"HKLM\\a", false, "[a]\nv=2\n[a\\b]\nv=1\n", true},
        {"HKLM\\a", false, "[a]\nv=1\n[a\\b]\nv=2\n", false},
        {"HKLM\\a", true, "[a]\nv=1\n[a\\b]\nv=2\n", true},
        {"HKLM\\a", false, "[a]\nv=1\n[a\\b]\nv=1\n[a\\c]\n", true},
        {"HKLM\\a\\x", true, "[a]\nv=2\n[a\\b]\nv=1\n", false}, // not there yet
        {"HKLM\\a\\x", true, "[a]\nv=1\n[a\\b]\nv=1\n[a\\b\\x]\n", false},
        {"HKLM\\a\\x", true, "[a]\nv=1\n[a\\b]\nv=1\n[a\\x]\n", true},
    };
    for (const auto &row : rows) {
        settings.Store(before);
        RCPtr<OVPollThread> poll(new OVPollThread("watch"));
        RCPtr<Watcher> watcher(new Watcher(row.watched, row.subtree));
        OVEvent everything(false, false);
        platform::RegistryKey root = nullptr;
        ASSERT_EQ(platform::RegistryOpen(platform::RegistryRoot::LocalMachine, "a", 0, &root), 0u);
        constexpr uint32_t kAll = platform::kRegNotifyChangeName | platform::kRegNotifyChangeLastSet;
        ASSERT_EQ(
            platform::RegistryNotify(
                root, true, kAll, [](void *event) { static_cast<OVEvent *>(event)->Set(); }, &everything),
            0u);
        ASSERT_TRUE(watcher->Start(poll));
        poll->StartScheduler();
        watcher->armed.Wait();
        settings.Store(row.after);
        everything.Wait();
        platform::RegistryClose(root); // after which everybody has been told
        test::Settle(poll);            // whoever was told is before it in the line
        poll->StopScheduler();
        EXPECT_EQ(watcher->notices, row.told ? 1 : 0) << row.watched << row.after;
        watcher->Stop();
    }
}

// The log is written between the look for the key and the asking to be told: what happens then is told, too.
TEST_F(KeyWatcher, AChangeByAnotherProcessArrivesOverThePollThread)
{
    static std::string write;
    write = "printf %s '[SOFTWARE\\a\\b]' > " + settings.Folder() + "/HKEY_LOCAL_MACHINE.ini";
    RCPtr<OVPollThread> poll(new OVPollThread("watch"));
    RCPtr<Watcher> watcher(new Watcher("HKLM\\Software\\a\\b"));
    CapturedLog log(LOG_LEVEL_DEBUG);
    SetLogHandler([](const char *function, int32_t, const char *, va_list) {
        if (function == std::string("OVRegKeyWatcher::OpenRegKey()") && !write.empty()) {
            EXPECT_EQ(std::system(std::exchange(write, "").c_str()), 0);
        }
    });
    ASSERT_TRUE(watcher->Start(poll));
    poll->StartScheduler();
    EXPECT_EQ(watcher->changed.Wait(60'000), OVEvent::kSignalled);
    EXPECT_TRUE(watcher->IsKeyFound());
    watcher->Stop();
    poll->StopScheduler();
}

} // namespace
} // namespace fodr
