#include "runtime/OVFile.h"

#include "SettingsFixture.h"
#include "WholeFile.h"
#include "runtime/CapturedLog.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fodr {
namespace {

using FileUtils::OVFile;
using testing::ElementsAre;

class File : public testing::Test {
protected:
    std::string Content() const { return test::ReadWholeFile(path); }

    test::SettingsFixture folder; // a folder that goes with the test
    const std::string path = folder.Folder() + "/\xC3\xA9t\xC3\xA9.log";
};

TEST_F(File, OpensWhatIsThereAndMakesNothing)
{
    CapturedLog log(LOG_LEVEL_DEBUG);
    int64_t size = -5;
    OVFile unnamed("");
    OVFile file(path);
    EXPECT_FALSE(unnamed.Open("a") || unnamed.GetSize(&size));
    EXPECT_FALSE(file.Open("w") || file.GetSize(&size) || file.Flush() || file.Write("x"));
    EXPECT_EQ(size, -5);
    OVFile directory(folder.Folder());
    EXPECT_FALSE(directory.Open("a"));
    EXPECT_THAT(CapturedLog::Lines(),
                ElementsAre("D FileUtils::OVFile::Open(): The abolute path of the file is not set.\n",
                            "D FileUtils::OVFile::Open(): " + path + " file does not exist.\n",
                            "D FileUtils::OVFile::Open(): Opening the file failed: " + folder.Folder()));
    EXPECT_FALSE(std::ifstream(path).is_open());
}

TEST_F(File, AppendsSideBySideWithOthersAndTellsItsPosition)
{
    std::ofstream(path) << "12345\n";
    int64_t size = 0;
    OVFile file(path);
    EXPECT_TRUE(file.GetSize(&size) && file.GetSize(nullptr));
    EXPECT_EQ(size, 6);
    ASSERT_TRUE(file.Open("a"));
    {
        OVFile other(path);
        EXPECT_TRUE(other.Open("a") && other.Write("%s other\n"));
    } // its end writes and closes
    EXPECT_TRUE(file.Write("mine\n"));
    EXPECT_TRUE(file.GetSize(&size));
    EXPECT_EQ(Content(), "12345\n%s other\n"); // buffered until
    EXPECT_TRUE(file.Flush());
    EXPECT_EQ(Content(), "12345\n%s other\nmine\n");
    EXPECT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 20);
    ASSERT_TRUE(file.Open("w")); // closes the first stream
    EXPECT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 0);
    EXPECT_TRUE(file.Write("new") && file.Close() && file.Close());
    EXPECT_FALSE(file.Write("lost") || file.IsOpen());
    EXPECT_EQ(Content(), "new");
}

} // namespace
} // namespace fodr
