#include "plugin/FolderCommands.h"

#include "platform/Nt.h"
#include "rdpdr/ManagerFixture.h"

#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

namespace fodr {
namespace {

TEST(FolderCommands, TheFirstTextIsSplitIntoActionCountPathAndName)
{
    const struct {
        const char *text;
        bool result;
        std::string action;
        int32_t count;
        std::string path, name;
    } cases[] = {
        {"ADD,C:\\x|X", true, "ADD", 0, "C:\\x", "X"},
        {"ADD,2,C:\\x|(OVDND)X", true, "ADD", 2, "C:\\x", "(OVDND)X"},
        {"ADD,0,C:\\x|X", true, "ADD", 0, "0,C:\\x", "X"}, // a zero is part of the path
        {"ADD,-1,/x|X", true, "ADD", -1, "/x", "X"},
        {"ADD,7up,/x|X", true, "ADD", 7, "/x", "X"}, // read as atoi reads it
        {"ADD,/a,b/c|X", true, "ADD", 0, "/a,b/c", "X"},
        {"ADD,/a,|X", true, "ADD", 0, "/a,", "X"},
        {"ADD,/x,", true, "ADD", 0, "/x,", ""},
        {"ADD,C:\\x", true, "ADD", 0, "C:\\x", ""},
        {"ADD,/a|b|c", true, "ADD", 0, "/a|b", "c"}, // the last bar parts them
        {"add,/x|X", true, "add", 0, "/x", "X"},
        {"ADD,", false, "", 0, "", ""},
        {",C:\\x|X", false, "", 0, "", ""},
        {"ADD", false, "", 0, "", ""},
        {"", false, "", 0, "", ""},
    };
    for (const auto &c : cases) {
        std::string action, path, name;
        int32_t count = 0;
        EXPECT_EQ(ParseCmdData(c.text, action, count, path, name), c.result) << c.text;
        EXPECT_EQ(std::tie(action, count, path, name), std::tie(c.action, c.count, c.path, c.name)) << c.text;
    }
}

TEST(FolderCommands, AFileListEndsAtItsCountOrAtAnEmptyText)
{
    using namespace std::string_literals;
    std::string texts = "a.txt\0b c.txt\0\0d.txt\0"s;
    struct {
        int32_t count;
        bool result;
        std::vector<std::string> list;
    } cases[] = {
        {0, true, {}},
        {1, true, {"a.txt"}},
        {2, true, {"a.txt", "b c.txt"}},
        {3, false, {"a.txt", "b c.txt"}},
        {-1, false, {"a.txt", "b c.txt"}}, // taken as unsigned
    };
    for (const auto &c : cases) {
        std::vector<std::string> list;
        EXPECT_EQ(ParseFileList(texts.c_str(), c.count, list), c.result) << c.count;
        EXPECT_EQ(list, c.list) << c.count;
    }
}

// The whole way of a command, over a real folder and its files.
class FolderCommandRun : public test::ManagerTest {
protected:
    bool Command(const std::string &texts, const char *cookie = "7")
    {
        return OnSharedFolderCommand(&manager, "desktop", cookie, texts.c_str());
    }
};

TEST_F(FolderCommandRun, AddsFilesByNameAndMoreOfThemLater)
{
    using namespace std::string_literals;
    const std::string folder = Folder("with, comma");
    for (const char *name : {"one", "two", "three"})
        std::ofstream(folder + "/" + name) << name;
    const test::Strings kAll = {"one", "two", "three"};
    LogOn(6);
    EXPECT_TRUE(Command("ADD,2," + folder + "|(OVFCP)x\0one\0two\0"s));
    EXPECT_EQ(TakeShares(), test::Strings{"65535 (OVFCP)x (5)"});
    EXPECT_EQ(OpenedOf(manager, kAll), (test::Strings{"one", "two"}));
    EXPECT_TRUE(Command("ADD,1," + folder + "|(OVFCP)x\0three\0"s));
    EXPECT_EQ(OpenedOf(manager, kAll), kAll);

    // A list that breaks off is no list: the share is there and shows nothing.
    EXPECT_TRUE(Command("ADD,3," + folder + "|(OVDND)x\0one\0\0two\0"s));
    EXPECT_EQ(OpenedOf(manager, kAll, 65536), test::Strings{});
    // A count on a plain share means nothing.
    EXPECT_TRUE(Command("ADD,1," + folder + "|plain\0one\0"s));
    EXPECT_EQ(OpenedOf(manager, kAll, 65537), kAll);

    EXPECT_FALSE(Command("add,1," + folder + "|(OVFCP)y\0one\0"s));
    EXPECT_FALSE(Command("REMOVE," + folder + "|(OVFCP)z"));
    EXPECT_TRUE(Command("REMOVE," + folder + "|(OVFCP)x"));
    EXPECT_TRUE(Command("REMOVE,5," + folder + "|plain")); // its files aren't looked at
    EXPECT_FALSE(OnSharedFolderCommand(nullptr, "desktop", "1", "ADD,/tmp|x"));
    EXPECT_FALSE(OnSharedFolderCommand(&manager, nullptr, nullptr, nullptr));
}

} // namespace
} // namespace fodr
