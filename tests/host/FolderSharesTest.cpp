#include "host/FolderShares.h"

#include "platform/Volumes.h"

#include <algorithm>
#include <cstdlib>
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
        bus.Subscribe("FORLDER_REDIRECTION_CMD", this,
                      [](void *self, const char *, const char *cookie, const char *data) {
                          std::string texts = data;
                          const size_t comma = texts.find(',');
                          for (int files = atoi(data + comma + 1); files > 0; --files) {
                              const char *end = data + texts.size();
                              texts += '\0' + std::string(end + 1);
                          }
                          std::replace(texts.begin(), texts.end(), '\0', '/');
                          static_cast<Shares *>(self)->asked.push_back(std::string(cookie) + ": " + texts);
                          return true;
                      });
    }
    void Status(const std::string &cookie, const std::string &text)
    {
        shares.HandleNotice(cookie, "FOLDER_REDIRECTION_CMD_STATUS," + text);
    }
    std::string Asked()
    {
        std::string all;
        for (const std::string &line : asked)
            all += line + "\n";
        asked.clear();
        return all;
    }

    host::MessageBus bus;
    std::vector<std::string> asked;
    std::vector<std::string> changed;
    FolderShares shares{&bus, [this](const FolderShare &share) {
                            changed.push_back(share.name +
                                              (share.state == ShareState::Ready ? " ready" : " refused") +
                                              (share.problem.empty() ? "" : ": " + share.problem));
                        }};
};

TEST_F(Shares, AreAskedForWhenTheOtherSideTakesThemAndAgainForANewInstance)
{
    shares.Add("/data/docs", "docs");
    EXPECT_EQ(Asked(), "");
    shares.HandleNotice("", "RDPDR_CAPABILITY_STATUS,ENABLED");
    EXPECT_EQ(Asked(), "fodr-1: ADD,/data/docs|docs\n");
    shares.HandleNotice("", "RDPDR_CAPABILITY_STATUS,ENABLED"); // may be said again
    EXPECT_EQ(Asked(), "");
    shares.Add("/data/more", "more");
    EXPECT_EQ(Asked(), "fodr-2: ADD,/data/more|more\n");
    EXPECT_EQ(shares.Add("/data/docs", "other"), nullptr);

    Status("fodr-1", "Share name change to docs(1)");
    Status("fodr-1", "SUCCEEDED");
    Status("fodr-9", "SUCCEEDED");
    EXPECT_EQ(changed, std::vector<std::string>({"docs(1) ready"}));

    shares.StartOver();
    EXPECT_EQ(shares.All()[0].state, ShareState::Waiting);
    shares.HandleNotice("", "RDPDR_CAPABILITY_STATUS,FORCED");
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
    shares.HandleNotice("", "RDPDR_CAPABILITY_STATUS,ENABLED");
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
    const struct {
        const char *status;
        const char *problem;
    } cases[] = {
        {"Folder not exist or invalid parameter or configuration", "the folder is gone or can't be read"},
        {"Invalid share path", "its path can't be used"},
        {"Policy is not received from Agent", "the other side hasn't said what may be shared"},
        {"Redirecting /a is not allowed from Agent", "the other side doesn't allow it"},
        {"Internal system error", "the plug-in can't serve it"},
        {"Fails to communicate with agent", "the other side can't be told of it"},
        {"Failed with code 0xc0000001", "the other side refused it"},
        {"something new", "something new"},
    };
    shares.HandleNotice("", "RDPDR_CAPABILITY_STATUS,ENABLED");
    int number = 0;
    for (const auto &test : cases) {
        shares.Add("/" + std::to_string(number), std::to_string(number));
        Status("fodr-" + std::to_string(++number), test.status);
        EXPECT_EQ(changed.back(), std::to_string(number - 1) + " refused: " + test.problem);
    }
    shares.HandleNotice("", "RDPDR_CAPABILITY_STATUS,DISABLED");
    EXPECT_TRUE(shares.Disabled());
}

TEST(ShareNames, AnyFolderCanBeAskedForWithoutBreakingTheCommand)
{
    const struct {
        const char *path;
        const char *asked;
    } paths[] = {
        {"/", "/"},
        {"/1,2/x,y", "/1,2/x,y"}, // the count is only read before a comma, and "/1" is 0
        {"/a|b", "/a\uF07Cb"},
        {"/a\\b/c:d", "/a\uF05Cb/c\uF03Ad"},
        {"/new\nline", "/new\uF00Aline"},
        {"/bad\xFF\xC3", "/bad\uF7FF\uF7C3"},
        {"/Größe/資料", "/Größe/資料"},
    };
    for (const auto &test : paths) {
        const bool mapped = platform::LocalSeparator() == '/'; // other systems have no such names
        EXPECT_EQ(FolderShares::AskedForm(test.path), mapped ? test.asked : test.path);
    }
    const struct {
        const char *text;
        const char *name;
    } names[] = {
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
    for (const auto &test : names)
        EXPECT_EQ(FolderShares::NameFor(test.text), test.name);
}

} // namespace
} // namespace fodr::test
