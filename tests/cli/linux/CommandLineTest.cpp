#include "RealMount.h"
#include "agent/Agent.h"
#include "cli/Commands.h"
#include "cli/MountFolder.h"
#include "cli/Words.h"
#include "platform/ChildProcess.h"
#include "platform/Files.h"
#include "platform/Volumes.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

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

using Words = std::vector<std::string>;

Words Told(const agent::AgentOptions &options)
{
    const agent::ClientOptions &client = options.client;
    const agent::PolicyOptions &policy = client.policy;
    std::ostringstream text;
    text << "layout=" << static_cast<int>(options.layout) << "\nreadOnly=" << options.readOnly
         << "\nallowOther=" << options.allowOther << "\ncacheMS=" << options.cacheMS
         << "\ndenyWriters=" << options.denyWriters << "\nshareWaitMS=" << options.shareWaitMS
         << "\nversion=" << client.version << "\nmultiEntry=" << client.multiEntryDirectoryQuery
         << "\npreRead=" << client.preRead << "\ndriveLetters=" << client.driveLetterMapping
         << "\nside=" << static_cast<int>(client.sideChannel) << "\naddress=" << client.sideChannelAddress
         << "\ntimeout=" << client.ioTimeoutSeconds << "\nenabled=" << policy.enabled
         << "\nonlyForced=" << policy.sharedByAgent
         << "\npermission=" << static_cast<int>(policy.defaultPermission)
         << "\nexclude=" << policy.excludeRule << "\ninclude=" << policy.includeRule;
    for (const agent::PolicyFolder &folder : policy.folders)
        text << "\nfolder=" << static_cast<int>(folder.permission) << "|" << folder.path;
    Words lines;
    std::istringstream all(text.str());
    for (std::string line; std::getline(all, line);)
        lines.push_back(line);
    return lines;
}

// What the words make of the agent, or why they are refused.
Words Outcome(Words words)
{
    words.insert(words.begin(), {"mnt", "--stdio"});
    std::reverse(words.begin(), words.end()); // as the parser wants it
    cli::AgentCommandWords parsed;
    CLI::App app;
    cli::AddAgentOptions(&app, &parsed);
    agent::AgentOptions options;
    std::string problem;
    try {
        app.parse(words);
    } catch (const CLI::ParseError &error) {
        return {"not understood"};
    }
    return cli::AgentOptionsFrom(parsed, &options, &problem) ? Told(options) : Words{problem};
}

TEST(AgentCommandLine, EveryOptionReachesTheAgentAndNothingElseDoes)
{
    const std::string rules = "vid-0781_pid-5567;vid-aBcD_pid-****";
    const struct {
        Words words;
        Words changes;
    } rows[] = {
        {{"--layout", "folders"}, {"layout=1"}},
        {{"--read-only"}, {"readOnly=1", "permission=1"}},
        {{"--read-only", "--permission", "2"}, {"readOnly=1", "permission=2"}},
        {{"--permission", "255"}, {"permission=255"}},
        {{"--permission", "0"}, {"permission=0"}},
        {{"--disabled"}, {"enabled=0"}},
        {{"--only-forced"}, {"onlyForced=1"}},
        {{"--force", "3:C:\\docs", "--force", "C:\\docs", "--force", "*all", "--force", "256:x"},
         {"folder=3|C:\\docs", "folder=0|C:\\docs", "folder=0|*all", "folder=0|256:x"}},
        {{"--protocol", "1"}, {"version=1"}},
        {{"--single-entries"}, {"multiEntry=0"}},
        {{"--no-pre-read"}, {"preRead=0"}},
        {{"--drive-letters"}, {"driveLetters=1"}},
        {{"--deny-writers"}, {"denyWriters=1"}},
        {{"--allow-other"}, {"allowOther=1"}},
        {{"--cache-ms", "0", "--share-wait-ms", "7", "--io-timeout", "0"},
         {"cacheMS=0", "shareWaitMS=7", "timeout=0"}},
        {{"--side-channel", "tcp", "--side-address", "::1"}, {"side=1", "address=::1"}},
        {{"--side-channel", "plugin"}, {"side=2"}},
        {{"--exclude", rules, "--protocol", "5"}, {"version=5", "exclude=" + rules}},
        {{"--include", rules}, {"include=" + rules}},
        {{"--exclude", "", "--protocol", "1"}, {"version=1"}},
    };
    const Words plain = Outcome({});
    ASSERT_GT(plain.size(), 1u);
    for (const auto &row : rows) {
        Words changes;
        for (const std::string &line : Outcome(row.words)) {
            if (std::find(plain.begin(), plain.end(), line) == plain.end())
                changes.push_back(line);
        }
        EXPECT_EQ(changes, row.changes) << testing::PrintToString(row.words);
    }
}

TEST(AgentCommandLine, WhatCannotBeFollowedIsRefusedInOneSentence)
{
    const std::string noRule = " is not a rule like vid-0781_pid-5567";
    const struct {
        Words words;
        std::string problem;
    } rows[] = {
        {{"--read-only", "--permission", "5"}, "--read-only contradicts --permission 5: read-only is 1 or 2"},
        {{"--read-only", "--permission", "0"}, "--read-only contradicts --permission 0: read-only is 1 or 2"},
        {{"--exclude", "0781:5567"}, "--exclude: \"0781:5567\"" + noRule},
        {{"--exclude", "vid-0781_pid-5567;"}, "--exclude: \"\"" + noRule},
        {{"--include", "vid-0781_pid-5567;VID-0781_pid-5567"}, "--include: \"VID-0781_pid-5567\"" + noRule},
        {{"--include", "vid-0781_pid-55678"}, "--include: \"vid-0781_pid-55678\"" + noRule},
        {{"--include", "vid-****_pid-****", "--protocol", "4"},
         "--include needs an agent of version 5, and --protocol makes it one of 4"},
        {{"--permission", "256"}, "not understood"},
        {{"--protocol", "7"}, "not understood"},
        {{"--protocol", "0"}, "not understood"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Outcome(row.words), Words{row.problem}) << testing::PrintToString(row.words);
}

} // namespace
} // namespace fodr::test
