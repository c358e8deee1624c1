#include "agent/Agent.h"
#include "cli/Commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

namespace fodr::test {
namespace {

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
