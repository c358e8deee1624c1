#include "runtime/SystemFacts.h"

#include "SettingsFixture.h"
#include "platform/Process.h"

#include <fcntl.h>

#include <ctime>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

namespace fodr {
namespace {

using testing::EndsWith;
using testing::MatchesRegex;
using testing::StartsWith;

class Facts : public testing::Test {
protected:
    // A zone without changes of the clock, so that the test doesn't depend on the season.
    Facts() { SetZone("XST-5:30"); }
    ~Facts() override { SetZone("UTC"); }
    static void SetZone(const char *zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
    static void SetTime(const std::string &path, time_t seconds)
    {
        const timespec times[2] = {{seconds, 0}, {seconds, 999'999'999}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    const test::SettingsFixture settings;
};

TEST_F(Facts, TheTextOfAFilesTimeIsLocal)
{
    const std::string path = settings.Folder() + "/file";
    std::ofstream(path) << "x";
    const std::pair<time_t, const char *> rows[] = {
        {0, "Jan  1 1970 05:30:00"},          {1709209800, "Feb 29 2024 18:00:00"},
        {1735669799, "Dec 31 2024 23:59:59"}, {1735669800, "Jan  1 2025 00:00:00"},
        {-86400, "Dec 31 1969 05:30:00"},
    };
    for (const auto &[seconds, text] : rows) {
        SetTime(path, seconds);
        EXPECT_EQ(GetFileTimeText(path), text);
    }
    SetZone("CET-1CEST,0/0,366/23"); // summer time all the year, also for a time long ago
    SetTime(path, 0);
    EXPECT_EQ(GetFileTimeText(path), "Jan  1 1970 02:00:00");

    EXPECT_EQ(mkfifo((settings.Folder() + "/pipe").c_str(), S_IRWXU), 0);
    EXPECT_NE(GetFileTimeText(settings.Folder() + "/pipe"), ""); // and nobody waits for a writer
    for (const std::string &none : {std::string(), path + "2", settings.Folder()})
        EXPECT_EQ(GetFileTimeText(none), "");
}

TEST_F(Facts, TheVersionOfAProgramIsReadFromItsFile)
{
    const std::string module = GetModulePath(true);
    EXPECT_EQ(module, GetModulePath(false)); // this test is one program
    SetZone("UTC");
    EXPECT_THAT(GetFileVersionText(module), MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+ \\(.*\\)"));
    EXPECT_THAT(GetFileVersionText(module), EndsWith(" (" + GetFileTimeText(module) + ")"));
    const std::string path = settings.Folder() + "/file";
    for (const char *content : {"", "text", "\177ELF\2"}) {
        std::ofstream(path) << content;
        EXPECT_EQ(GetFileVersionText(path), "");
    }
    EXPECT_EQ(GetFileVersionText("/bin/sh"), ""); // another maker's
    EXPECT_EQ(GetFileVersionText(""), "");

    // A cut or damaged file is none either, wherever it is cut.
    std::ifstream file(module, std::ios::binary);
    std::string head(16384, '\0');
    file.read(head.data(), static_cast<std::streamsize>(head.size()));
    std::string version;
    ASSERT_TRUE(platform::FileProductVersion(module, version));
    for (size_t length = 0; length < 4096; length += 29) {
        std::ofstream(path, std::ios::binary) << head.substr(0, length);
        platform::FileProductVersion(path, version);
        std::string damaged = head;
        damaged[length] = '\xFF';
        std::ofstream(path, std::ios::binary) << damaged;
        platform::FileProductVersion(path, version);
    }
}

TEST_F(Facts, TheSystemsVersionIsPutTogetherFromWhatThereIs)
{
    utsname kernel{};
    ASSERT_EQ(uname(&kernel), 0);
    const std::string tail = std::string(", Build ") + kernel.version + ", 64-bit";
    EXPECT_THAT(MakeOsVersionText(), EndsWith(std::string(", Version ") + kernel.release + tail));
    EXPECT_THAT(MakeOsVersionText(), StartsWith(platform::OsVersionValue("ProductName") + ", "));
    EXPECT_EQ(GetOsVersionText(), MakeOsVersionText());

    const std::string key = "[SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion]\n";
    const std::pair<const char *, std::string> rows[] = {
        {"ProductName=Windows 10 Pro\nCurrentMajorVersionNumber=dword:10\nCurrentMinorVersionNumber=dword:0\n"
         "CurrentVersion=6.3\nReleaseId=1903\nCurrentBuildNumber=18362\nCurrentBuild=1\n",
         "Windows 10 Pro, Version 10.0.1903, Build 18362, 64-bit"},
        {"ProductName=Windows 7\nCSDVersion=Service Pack 1\nCurrentMajorVersionNumber=dword:6\n"
         "CurrentVersion=6.1\n",
         "Windows 7, Service Pack 1, Version 6.1" + tail},
    };
    for (const auto &[values, text] : rows) {
        settings.Store(key + values);
        EXPECT_EQ(MakeOsVersionText(), text);
    }
    EXPECT_NE(GetOsVersionText(), rows[1].second); // made once
}

TEST_F(Facts, TheSessionIsTheProcesssUnlessItIsKnown)
{
    uint32_t own = 0;
    ASSERT_TRUE(platform::CurrentSessionId(own));
    EXPECT_EQ(ProcessUtils::GetSessionID(), own);
    EXPECT_EQ(ProcessUtils::GetSessionID(true), own); // threads have none of their own
    EXPECT_EQ(ProcessUtils::GetSessionID(true, 7), 7u);
    EXPECT_EQ(ProcessUtils::GetSessionID(false, 0), 0u);
}

} // namespace
} // namespace fodr
