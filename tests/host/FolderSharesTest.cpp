#include "host/FolderShares.h"

#include "platform/Volumes.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

namespace fodr::test {
namespace {

using host::FolderShare;
using host::FolderShares;
using host::ShareState;

// The plug-in's end of the bus: what it is asked, and a word back under the cookie.
class Shares : public testing::Test {
protected:
    Shares()
    {
        bus.Subscribe("FORLDER_REDIRECTION_CMD", &asked,
                      [](void *lines, const char *, const char *cookie, const char *data) {
                          std::string line = std::string(cookie) + ": " + data;
                          for (int files = atoi(data + std::string_view(data).find(',') + 1); files > 0;
                               --files) {
                              data += std::strlen(data) + 1;
                              line += std::string("/") + data;
                          }
                          *static_cast<std::string *>(lines) += line + "\n";
                          return true;
                      });
    }
    void Capability(const std::string &text) { shares.HandleNotice("", "RDPDR_CAPABILITY_STATUS," + text); }
    void Status(const std::string &cookie, const std::string &text)
    {
        shares.HandleNotice(cookie, "FOLDER_REDIRECTION_CMD_STATUS," + text);
    }
    std::string Asked() { return std::exchange(asked, ""); }

    host::MessageBus bus;
    std::string asked, changed; // since the last look
    FolderShares shares{&bus, [this](const FolderShare &share) {
                            changed = share.name +
                                      (share.state == ShareState::Ready ? " ready" : " refused: ") +
                                      share.problem;
                        }};
};

TEST_F(Shares, AreAskedForWhenTheOtherSideTakesThemAndAgainForANewInstance)
{
    shares.Add("/data/docs", "docs");
    EXPECT_EQ(Asked(), "");
    Capability("ENABLED");
    EXPECT_EQ(Asked(), "fodr-1: ADD,/data/docs|docs\n");
    Capability("ENABLED"); // may be said again
    EXPECT_EQ(Asked(), "");
    shares.Add("/data/more", "more");
    EXPECT_EQ(Asked(), "fodr-2: ADD,/data/more|more\n");
    EXPECT_EQ(shares.Add("/data/docs", "other"), nullptr);

    Status("fodr-1", "Share name change to docs(1)");
    Status("fodr-9", "SUCCEEDED");
    EXPECT_EQ(changed, "");
    Status("fodr-1", "SUCCEEDED");
    EXPECT_EQ(changed, "docs(1) ready");

    shares.StartOver();
    EXPECT_EQ(shares.All()[0].state, ShareState::Waiting);
    Capability("FORCED");
    EXPECT_EQ(Asked(), "fodr-1: ADD,/data/docs|docs(1)\nfodr-2: ADD,/data/more|more\n");

    EXPECT_TRUE(shares.Remove("more"));
    EXPECT_TRUE(shares.Remove("/data/docs"));
    EXPECT_FALSE(shares.Remove("/data/docs"));
    EXPECT_EQ(Asked(), "fodr-2: REMOVE,/data/more|more\nfodr-1: REMOVE,/data/docs|docs(1)\n");
}

TEST_F(Shares, FilesOfAFolderAreAskedForByName)
{
    if (platform::LocalSeparator() != '/')
        GTEST_SKIP() << "the paths are those of another system";
    Capability("ENABLED");
    shares.Add("/data/a,b", "docs", {"one,1", "two|", "(OVFR)"});
    EXPECT_EQ(Asked(), "fodr-1: ADD,3,/data/a,b|(OVFCP)docs/one,1/two\uf07c/(OVFR)\n");
    shares.Add("/", "root", {"etc"});
    EXPECT_EQ(Asked(), "fodr-2: ADD,1,/|(OVFCP)root/etc\n");
    EXPECT_EQ(shares.OfferedForms(), std::vector<std::string>({"/data/a,b/one,1", "/data/a,b/two\uf07c",
                                                               "/data/a,b/(OVFR)", "/etc"}));
    EXPECT_TRUE(shares.Remove("docs"));
    EXPECT_EQ(Asked(), "fodr-1: REMOVE,/data/a,b|(OVFCP)docs\n");
}

TEST_F(Shares, RefusalsAreExplained)
{
    const std::pair<const char *, const char *> cases[] = {
        {"Folder not exist or invalid parameter or configuration", "the folder is gone or can't be read"},
        {"Invalid share path", "its path can't be used"},
        {"Policy is not received from Agent", "the other side hasn't said what may be shared"},
        {"Redirecting /a is not allowed from Agent", "the other side doesn't allow it"},
        {"Internal system error", "the plug-in can't serve it"},
        {"Fails to communicate with agent", "the other side can't be told of it"},
        {"Failed with code 0xc0000001", "the other side refused it"},
        {"something new", "something new"},
    };
    Capability("ENABLED");
    int number = 0;
    for (const auto &[status, problem] : cases) {
        const std::string name = std::to_string(++number);
        shares.Add("/" + name, name);
        Status("fodr-" + name, status);
        EXPECT_EQ(changed, name + " refused: " + problem);
    }
    Capability("DISABLED");
    EXPECT_TRUE(shares.Disabled());
}

TEST(ShareNames, AnyFolderCanBeAskedForWithoutBreakingTheCommand)
{
    const std::pair<std::string, std::string> paths[] = {
        {"/", "/"},
        {"/1,2/x,y", "/1,2/x,y"}, // the count is only read before a comma, and "/1" is 0
        {"/a|b", "/a\uF07Cb"},
        {"/a\\b/c:d", "/a\uF05Cb/c\uF03Ad"},
        {"/new\nline", "/new\uF00Aline"},
        {"/bad\xFF\xC3", "/bad\uF7FF\uF7C3"},
        {"/Größe/資料", "/Größe/資料"},
    };
    const bool mapped = platform::LocalSeparator() == '/'; // other systems have no such names
    for (const auto &[path, asked] : paths)
        EXPECT_EQ(FolderShares::AskedForm(path), mapped ? asked : path);
    const std::pair<std::string, std::string> names[] = {
        {"docs", "docs"},
        {"a|b:c*d\"e<f>g?h@i/j\\k", "a_b_c_d_e_f_g_h_i_j_k"},
        {"tab\tline\n", "tab_line_"},
        {"bad\xFF\xC3", "bad__"},
        {"half\xE8\xB3", "half__"},
        {"資料😀", "資料😀"},
        {"blanks  ", "blanks"},
        {"   ", "_"},
        {"", "_"},
        {"(OVDND)x", "(OV.DND)x"},
        {"(OVFCP)x", "(OV.FCP)x"},
        {"(OVFR)x", "(OV.FR)x"},
        {"x(OVFR)", "x(OVFR)"},
    };
    for (const auto &[text, name] : names)
        EXPECT_EQ(FolderShares::NameFor(text), name);
}

} // namespace
} // namespace fodr::test
