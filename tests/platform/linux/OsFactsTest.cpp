#include "platform/linux/OsFacts.h"

#include "platform/Files.h"
#include "platform/Process.h"

#include <unistd.h>

#include <gtest/gtest.h>
#include <sstream>

namespace fodr::platform {
namespace {

TEST(OsFacts, TheDistributionsNameIsReadWithoutItsQuotes)
{
    const std::string text = "# a comment\nNAME=\"Plain\"\nXPRETTY_NAME=x\nPRETTY_NAME=\"A \\\"B\\\" \\$1\"\n"
                             "EMPTY=\nID='debian'\nLAST=end\\";
    for (const auto &[key, value] : {std::pair{"PRETTY_NAME", "A \"B\" $1"},
                                     {"NAME", "Plain"},
                                     {"ID", "debian"},
                                     {"EMPTY", ""},
                                     {"LAST", "end\\"},
                                     {"NONE", ""}}) {
        std::istringstream file(text);
        EXPECT_EQ(OsReleaseValue(file, key), value);
    }
    EXPECT_NE(OsVersionValue("ProductName"), "");
    EXPECT_EQ(OsVersionValue("CSDVersion"), "");
}

TEST(OsFacts, AServiceIsToldByItsAccountOrItsUnitAndNeverByBeingRoot)
{
    const char inUnit[] = "0::/system.slice/orvane.service\n";
    const struct {
        AccountFacts facts;
        bool service;
    } rows[] = {
        {{0, "/bin/bash", false, false, "0::/\n"}, false}, // as in a container
        {{0, "/usr/sbin/nologin", false, false, ""}, false},
        {{0, "/bin/bash", false, false, inUnit}, true},
        {{0, "/bin/bash", true, false, inUnit}, false}, // a job of somebody's, run by a service
        {{1000, "/bin/bash", false, false, "5:cpu:/\n1:name=systemd:/system.slice/a.slice/b.service\n"},
         true},
        {{1000, "/bin/bash", false, false, "2:cpu:/system.slice/b.service\n1:name=systemd:/\n"}, false},
        {{1000, "/bin/bash", false, false, "0::/system.slice/docker-1.scope\n"}, false},
        {{1000, "/bin/bash", false, true, "0::/\n"}, true}, // a unit with control groups of its own
        {{1000, "/bin/bash", true, true, "0::/\n"}, false},
        {{1000, "/bin/bash", false, true,
          "0::/user.slice/user-1000.slice/user@1000.service/app.slice/a.service"},
         false},
        {{998, "/usr/sbin/nologin", false, false, "0::/user.slice/x\n"}, true},
        {{998, "/bin/false", true, false, ""}, true},
        {{998, "/bin/sh", false, false, ""}, false},
        {{1001, "/usr/sbin/nologin", false, false, ""}, false},
        {{65534, "/usr/sbin/nologin", false, false, "::\n0::\n:name=systemd:"}, false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(IsServiceAccount(row.facts), row.service)
            << row.facts.userId << row.facts.shell << row.facts.controlGroups;
}

TEST(OsFacts, FoldersEndInASeparatorAndTheUserHasAName)
{
    const std::string previous = GetEnvironment("TMPDIR");
    for (const auto &[chosen, folder] :
         {std::pair{"", "/tmp/"}, {"relative", "/tmp/"}, {"/var/tmp", "/var/tmp/"}, {"/x/", "/x/"}}) {
        SetEnvironment("TMPDIR", chosen);
        EXPECT_EQ(TemporaryFolder(), folder);
    }
    if (previous.empty())
        unsetenv("TMPDIR");
    else
        SetEnvironment("TMPDIR", previous);
    EXPECT_EQ(ServiceLogFolder(), "/var/log/orvane/");
    SetEnvironment("USERNAME", "somebody");
    EXPECT_EQ(EnvironmentUserName(), "somebody");
    unsetenv("USERNAME");
    EXPECT_EQ(EnvironmentUserName(), UserName());
}

} // namespace
} // namespace fodr::platform
