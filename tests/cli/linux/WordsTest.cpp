#include "cli/Words.h"

#include "RealMount.h"
#include "cli/MountFolder.h"
#include "platform/ChildProcess.h"
#include "platform/Files.h"
#include "platform/Volumes.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace fodr::test {
namespace {

namespace fs = std::filesystem;
using cli::MountFolder;

TEST(Words, AShellTakesTheLineApartIntoTheSameWords)
{
    const std::vector<std::string> words = {
        "printf", "%s\\n", "",   "a b",  "it's", "$HOME `id` \"x\" \\", "~",
        "*",      "ü",     "--", "-x=y", "a\tb", "!#&;()<>|?[]{}"};
    std::vector<std::string> lines;
    platform::ChildOptions options;
    options.arguments = {"sh", "-c", cli::JoinForShell(words) + " >&2"};
    options.onErrorLine = [&](const std::string &line) { lines.push_back(line); };
    std::string error;
    platform::ChildProcess::Start(options, &error)->Wait(-1); // its end takes the last line
    EXPECT_EQ(lines, std::vector<std::string>(words.begin() + 2, words.end()));
    EXPECT_EQ(cli::SplitWords(cli::JoinForShell(words)), words);
}

TEST(Words, ACommandInASettingIsSplit)
{
    using List = std::vector<std::string>;
    EXPECT_EQ(cli::SplitWords(""), List{});
    EXPECT_EQ(cli::SplitWords("  ssh  -p 22\t-i '/my key' \"a b\"c d\\ e "),
              List({"ssh", "-p", "22", "-i", "/my key", "a bc", "d e"}));
    EXPECT_EQ(cli::SplitWords("a '' \"\\\"\" '\\'"), List({"a", "", "\"", "\\"}));
}

TEST(Words, AddressesAreUnderstoodOrRefused)
{
    const struct {
        const char *text;
        bool portAlone;
        const char *result; // host|port
    } ports[] = {
        {"host:22", false, "host|22"}, {"[::1]:22", false, "::1|22"},
        {"22", true, "|22"},           {"22", false, "-"},
        {"host:", false, "-"},         {":22", false, "-"},
        {"host:0", false, "-"},        {"host:65536", false, "-"},
        {"host:2x", false, "-"},       {"::1:22", false, "-"},
        {"[]:22", false, "-"},         {"", true, "-"},
    };
    for (const auto &test : ports) {
        const auto place = cli::ParseHostAndPort(test.text, test.portAlone);
        EXPECT_EQ(place ? place->host + "|" + std::to_string(place->port) : "-", test.result) << test.text;
    }
    const struct {
        const char *text;
        const char *result;
    } places[] = {
        {"me@host:/mnt", "me@host|/mnt"},
        {"host:rel:x", "host|rel:x"},
        {"me@[::1]:/m", "me@::1|/m"},
        {"[::1]:/m", "::1|/m"},
        {"host", "-"},
        {"host:", "-"},
        {":/mnt", "-"},
        {"-oProxyCommand=x:/m", "-"},
        {"me@:/m", "-"},
        {"[::1/m", "-"},
        {"", "-"},
    };
    for (const auto &test : places) {
        const auto place = cli::ParseRemotePlace(test.text);
        EXPECT_EQ(place ? place->host + "|" + place->path : "-", test.result) << test.text;
    }
}

class MountPoints : public testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(root / "full");
        std::ofstream(root / "full" / "file") << "x";
        before = platform::GetEnvironment("XDG_RUNTIME_DIR");
        platform::SetEnvironment("XDG_RUNTIME_DIR", (root / "run").string());
    }
    void TearDown() override { platform::SetEnvironment("XDG_RUNTIME_DIR", before); }
    const ScratchFolder scratch;
    const fs::path root = scratch.Path();
    std::string before;
    std::string problem;
};

TEST_F(MountPoints, AreEmptyFoldersAndGoAgainWhenTheyWereMade)
{
    for (const char *bad : {"full", "full/file", "missing/below", "full/file/x"}) {
        problem.clear();
        EXPECT_FALSE(MountFolder::Prepare((root / bad).string(), &problem)) << bad;
        EXPECT_NE(problem.find(root.string()), std::string::npos) << problem;
    }
    EXPECT_FALSE(MountFolder::Prepare("/proc", &problem));
    EXPECT_NE(problem.find("mounted"), std::string::npos);
    fs::create_directory(root / "kept");
    fs::create_directory_symlink(root / "kept", root / "link");
    for (const char *name : {"made", "kept", "link/", "./kept/."}) {
        const auto point = MountFolder::Prepare((root / name).string(), &problem);
        ASSERT_TRUE(point) << problem;
        EXPECT_TRUE(fs::is_directory(point->Path()));
        EXPECT_TRUE(point->Clear(platform::DetachMount));
    }
    EXPECT_FALSE(fs::exists(root / "made"));
    EXPECT_TRUE(fs::exists(root / "kept"));
}

TEST_F(MountPoints, DefaultOnesDoNotMeet)
{
    const auto first = MountFolder::PrepareDefault("docs", &problem);
    ASSERT_TRUE(first) << problem;
    std::ofstream(fs::path(first->Path()) / "in use") << "x";
    const auto second = MountFolder::PrepareDefault("docs", &problem);
    ASSERT_TRUE(second) << problem;
    EXPECT_EQ(first->Path(), (root / "run/fodr/docs").string());
    EXPECT_EQ(second->Path(), (root / "run/fodr/docs(1)").string());
}

} // namespace
} // namespace fodr::test
