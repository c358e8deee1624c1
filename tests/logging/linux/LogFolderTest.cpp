#include "RealMount.h"
#include "logging/DirectFileWriter.h"
#include "logging/FileWriter.h"
#include "logging/LoggerManager.h"

#include <pwd.h>

#include <functional>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace fodr {
namespace {

namespace fs = std::filesystem;
using test::EnvironmentVariable;

std::string DefaultFolder()
{
    std::string folder = "unchanged";
    return DefaultLogFolder(folder) ? folder : "none, " + folder;
}

class LogFolder : public testing::Test {
protected:
    test::ScratchFolder scratch;
    EnvironmentVariable temp{"TMPDIR", scratch.Path().c_str()};
    EnvironmentVariable person{"XDG_SESSION_ID", "1"}; // even if a service runs this test
};

TEST_F(LogFolder, IsTheUsersOwnAmongTheTemporaryOnes)
{
    const std::string tooLong(256, 'u');
    const std::tuple<std::string, const char *, std::string> rows[] = {
        {"someone", "", "orvane-someone/"},
        {"someone", "", "orvane-someone/"}, // the second time it is there
        {tooLong, "", "orvane-default/"},
        {"someone", "run/user/1000", "run/user/1000/orvane-someone/"}, // only Windows numbers sessions so
    };
    for (const auto &[name, below, folder] : rows) {
        const EnvironmentVariable user("USERNAME", name.c_str());
        const EnvironmentVariable session("TMPDIR", scratch.MakeFolder(below).c_str());
        EXPECT_EQ(scratch / folder, DefaultFolder()) << below;
    }
    EXPECT_EQ(fs::perms::owner_all, fs::status(scratch / "orvane-someone").permissions());
}

TEST_F(LogFolder, IsNoneWhereItCantBeMade)
{
    EnvironmentVariable user("USERNAME", "no/such");
    EXPECT_EQ("none, unchanged", DefaultFolder());
    RCPtr<FileWriter> writer = new FileWriter;
    EXPECT_FALSE(writer->Init());
    std::string folder = "kept from before";
    EXPECT_TRUE(writer->GetValue("folderPath", folder));
    EXPECT_EQ("", folder);
}

TEST_F(LogFolder, OfAnotherUserIsNotUsed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a folder away";
    EnvironmentVariable user("USERNAME", "someone");
    ASSERT_EQ(0, chown(scratch.MakeFolder("orvane-someone").c_str(), 12345, 12345));
    EXPECT_EQ("none, unchanged", DefaultFolder());
}

// Whether the check holds in a process of the account.
bool HoldsAs(const char *account, const std::function<bool()> &check)
{
    const passwd *entry = getpwnam(account);
    if (!entry)
        return false;
    const uid_t id = entry->pw_uid;
    const pid_t child = fork();
    if (child == 0)
        _exit(setuid(id) == 0 && check() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(LogFolder, OfAServiceIsTheCommonOneWhichHasToBeThere)
{
    const passwd *daemon = getpwnam("daemon");
    if (geteuid() != 0 || !daemon || std::string(daemon->pw_shell).find("nologin") == std::string::npos)
        GTEST_SKIP() << "this user can't become an account of services";
    const std::string common = "/var/log/orvane";
    if (fs::exists(common))
        GTEST_SKIP() << common << " is in use";
    EXPECT_TRUE(HoldsAs("daemon", [] { return DefaultFolder() == "none, unchanged"; }));
    fs::create_directory(common);
    EXPECT_TRUE(HoldsAs("daemon", [] { return DefaultFolder() == "/var/log/orvane/"; }));
    fs::remove(common);
}

} // namespace
} // namespace fodr
