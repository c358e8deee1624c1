#include "host/PrivateSettings.h"

#include "Mailbox.h"
#include "platform/Registry.h"
#include "platform/UserFolders.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fodr::test {
namespace {

namespace fs = std::filesystem;

class Settings : public testing::Test {
protected:
    void SetUp() override
    {
        root = fs::path(testing::TempDir()) / ("fodr-settings-" + std::to_string(getpid()));
        fs::create_directories(root / "user");
        before = platform::GetEnvironment("FODR_SETTINGS_DIR");
        platform::SetEnvironment("FODR_SETTINGS_DIR", (root / "user").string());
    }
    void TearDown() override
    {
        platform::SetEnvironment("FODR_SETTINGS_DIR", before);
        fs::remove_all(root);
    }
    void UserStore(const std::string &text)
    {
        std::ofstream(root / "user" / "HKEY_LOCAL_MACHINE.ini") << text;
    }
    // As the plug-in reads it; "-" for a value that isn't there.
    static std::string Value(const char *name)
    {
        platform::RegistryKey key = nullptr;
        if (platform::RegistryOpen(platform::RegistryRoot::LocalMachine,
                                   "Software\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr",
                                   platform::kRegKeyRead, &key) != 0)
            return "no key";
        char data[1000] = {};
        uint32_t size = sizeof(data);
        const uint32_t result = platform::RegistryQuery(key, name, false, nullptr, data, &size);
        platform::RegistryClose(key);
        std::string text(data, result == 0 ? size : 0);
        for (char &c : text)
            c = c == '\0' ? '.' : c;
        return result == 0 ? text : "-";
    }

    fs::path root;
    std::string before;
};

TEST_F(Settings, ShareWhatIsNamedAndNothingElse)
{
    const std::string key = "[SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr]\n";
    const struct {
        const char *what;
        std::string store;
        const char *logLevel;
    } cases[] = {
        {"no store", "", "-"},
        {"everything",
         key + "RedirectAll=dword:1\nSharedFolders=multi_sz:/etc;\nAllowedFolders=multi_sz:/;\n"
               "logLevel=sz:DEBUG\n",
         "DEBUG."},
        {"not a store", "[[[\nnonsense", "-"},
    };
    const std::string folder = (root / "private").string();
    for (const auto &test : cases) {
        platform::SetEnvironment("FODR_SETTINGS_DIR", (root / "user").string());
        UserStore(test.store);
        std::string error;
        auto settings = host::PrivateSettings::Create(folder, &error);
        ASSERT_TRUE(settings) << test.what << ": " << error;
        EXPECT_EQ(platform::GetEnvironment("FODR_SETTINGS_DIR"), folder);
        struct stat facts {};
        ASSERT_EQ(stat(folder.c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 0777, 0700u);
        EXPECT_EQ(Value("RedirectAll"), "....") << test.what;
        EXPECT_EQ(Value("SharedFolders"), "-") << test.what;
        EXPECT_EQ(Value("AllowedFolders"), ".") << test.what;
        EXPECT_EQ(Value("logLevel"), test.logLevel) << test.what;
        EXPECT_TRUE(settings->Allow({"/a;b", "/c\\d\n", "/ü"}, &error));
        EXPECT_EQ(Value("AllowedFolders"), "/a;b./c\\d\n./ü..");
        // The user's own store is left as it was.
        std::ifstream stream(root / "user" / "HKEY_LOCAL_MACHINE.ini");
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}), test.store);
        settings.reset();
        EXPECT_FALSE(fs::exists(folder));
    }
}

TEST_F(Settings, FollowTheUserExceptForWhatIsShared)
{
    const std::string key = "[SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr]\n";
    std::string error;
    auto settings = host::PrivateSettings::Create((root / "private").string(), &error);
    ASSERT_TRUE(settings && settings->Allow({"/named"}, &error)) << error;
    Signal changed;
    settings->Follow(changed.Setter());
    const struct {
        std::string store;
        const char *logLevel;
    } states[] = {
        {key + "RedirectAll=dword:1\nAllowedFolders=multi_sz:/;\nlogLevel=TRACE\n", "TRACE."},
        {key + "sharedfolders=multi_sz:/etc;\nredirectall=dword:1\nLOGLEVEL=WARN\n", "WARN."},
        {"[[[\n", "-"},
    };
    for (const auto &state : states) {
        UserStore(state.store);
        changed.Wait(); // a file that is only half there may be told of, too
        while (Value("logLevel") != state.logLevel) {
            ASSERT_TRUE(settings->Refresh(&error)) << error;
            EXPECT_EQ(Value("RedirectAll"), "....");
            EXPECT_EQ(Value("SharedFolders"), "-");
            EXPECT_EQ(Value("AllowedFolders"), "/named..");
        }
    }
}

} // namespace
} // namespace fodr::test
