#include "host/PrivateSettings.h"

#include "Mailbox.h"
#include "SettingsFixture.h"
#include "WholeFile.h"
#include "platform/Files.h"
#include "platform/Registry.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fodr::test {
namespace {

namespace fs = std::filesystem;

const std::string kKey = "[SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr]\n";

class Settings : public testing::Test {
protected:
    // As the plug-in reads it, zeros as dots; "-" for a value that isn't there.
    static std::string Value(const char *name)
    {
        platform::RegistryKey key = nullptr;
        if (platform::RegistryOpen(platform::RegistryRoot::LocalMachine,
                                   "Software\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr",
                                   platform::kRegKeyRead, &key) != 0)
            return "no key";
        std::string data(1000, ' ');
        auto size = static_cast<uint32_t>(data.size());
        const uint32_t result = platform::RegistryQuery(key, name, false, nullptr, data.data(), &size);
        platform::RegistryClose(key);
        data.resize(size);
        std::replace(data.begin(), data.end(), '\0', '.');
        return result == 0 ? data : "-";
    }
    // What is shared, whatever the user's settings say.
    static void ExpectFixed(const std::string &allowed)
    {
        EXPECT_EQ(Value("RedirectAll"), "....");
        EXPECT_EQ(Value("SharedFolders"), "-");
        EXPECT_EQ(Value("AllowedFolders"), allowed);
        EXPECT_EQ(Value("caseSensitivity"), "\2...");
        EXPECT_EQ(Value("linksOutside"), "....");
        EXPECT_EQ(Value("readOnlyShares"), "....");
    }

    SettingsFixture user;
    const std::string userFile = user.Folder() + "/HKEY_LOCAL_MACHINE.ini";
    const std::string folder = user.Folder() + "/private";
    std::string error;
};

TEST_F(Settings, ShareWhatIsNamedAndNothingElse)
{
    const struct {
        const char *what;
        std::string store;
        const char *logLevel;
    } cases[] = {
        {"no store", "", "-"},
        {"everything",
         kKey + "RedirectAll=dword:1\nSharedFolders=multi_sz:/etc;\nAllowedFolders=multi_sz:/;\n"
                "caseSensitivity=dword:0\nlinksOutside=dword:1\nlogLevel=sz:DEBUG\n",
         "DEBUG."},
        {"not a store", "[[[\nnonsense", "-"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        platform::SetEnvironment("FODR_SETTINGS_DIR", user.Folder());
        user.Store(test.store);
        auto settings = host::PrivateSettings::Create(folder, &error);
        ASSERT_TRUE(settings) << error;
        EXPECT_EQ(platform::GetEnvironment("FODR_SETTINGS_DIR"), folder);
        EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
        ExpectFixed(".");
        EXPECT_EQ(Value("logLevel"), test.logLevel);
        EXPECT_TRUE(settings->Allow({"/a;b", "/c\\d\n", "/ü"}, &error));
        ExpectFixed("/a;b./c\\d\n./ü..");
        EXPECT_EQ(ReadWholeFile(userFile), test.store);
        settings.reset();
        EXPECT_FALSE(fs::exists(folder));
    }
}

TEST_F(Settings, TakeTheRulesOfTheRun)
{
    auto settings = host::PrivateSettings::Create(
        folder, &error, {.nameCase = host::NameCase::Insensitive, .linksOutside = true, .readOnly = true});
    ASSERT_TRUE(settings && settings->Allow({"/named"}, &error)) << error;
    EXPECT_EQ(Value("caseSensitivity"), "\1...");
    EXPECT_EQ(Value("linksOutside"), "\1...");
    EXPECT_EQ(Value("readOnlyShares"), "\1...");
}

TEST_F(Settings, FollowTheUserExceptForWhatIsShared)
{
    auto settings = host::PrivateSettings::Create(folder, &error);
    ASSERT_TRUE(settings && settings->Allow({"/named"}, &error)) << error;
    Signal changed;
    settings->Follow(changed.Setter());
    const std::pair<std::string, std::string> states[] = {
        // The store, and the log level that it asks for.
        {kKey + "RedirectAll=dword:1\nAllowedFolders=multi_sz:/;\nlogLevel=TRACE\n", "TRACE."},
        {kKey + "sharedfolders=multi_sz:/etc;\nredirectall=dword:1\nLOGLEVEL=WARN\n", "WARN."},
        {"[[[\n", "-"},
    };
    for (const auto &[store, logLevel] : states) {
        user.Store(store);
        changed.Wait(); // may be told of more than once
        while (Value("logLevel") != logLevel) {
            ASSERT_TRUE(settings->Refresh(&error)) << error;
            ExpectFixed("/named..");
        }
    }
}

// A user's settings file that can't be read, under a running host.

std::vector<std::string> complaints;

TEST(SettingsComplaint, ComesOncePerFault)
{
    complaints.clear();
    platform::SetRegistryComplaintHandler([](const char *text) {
        complaints.emplace_back(text);
        return true;
    });
    SettingsFixture user;
    user.Store("[[[\n");
    std::string error;
    auto settings = host::PrivateSettings::Create(user.Folder() + "/private", &error);
    ASSERT_TRUE(settings) << error;
    const std::pair<const char *, size_t> states[] = {
        {"[[[\n", 1}, {"[[[\n", 1}, {"[a]\nx=1\n", 1}, {"[a]\nnonsense\n", 2}, {"[a]\nx=dword:x\n", 3}};
    for (const auto &[store, count] : states) {
        user.Store(store);
        EXPECT_TRUE(settings->Refresh(&error)) << error;
        EXPECT_EQ(complaints.size(), count) << store;
    }
    EXPECT_THAT(complaints[0], testing::HasSubstr(user.Folder() + "/HKEY_LOCAL_MACHINE.ini is malformed"));
    settings.reset();
    platform::SetEnvironment("FODR_SETTINGS_DIR", user.Folder());
    platform::SetRegistryComplaintHandler(nullptr);
}

} // namespace
} // namespace fodr::test
