// A file writer on a small disk. The disk's size is changed rather than filled, so that the space is exact.
#include "RealMount.h"
#include "logging/DirectFileWriter.h"
#include "logging/LoggerManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

namespace fodr {
namespace {

using test::DirectFileWriter;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class SmallDisk : public testing::Test {
protected:
    void SetUp() override
    {
        FODR_NEEDS_MOUNTS();
        disk = std::make_unique<test::TmpfsMount>(folder);
        SetFree(100 * kMB);
        writer = new DirectFileWriter(folder);
        writer->SetValue("diskThresholdLowMB", "5");
        writer->SetValue("diskThresholdHighMB", "8");
        ASSERT_TRUE(writer->Init());
        writer->Put("begin"); // the file has its first page now
        seen = writer->Content().size();
    }
    void TearDown() override
    {
        writer = nullptr;
        LoggerManager::Instance().Shutdown();
    }

    void SetFree(uint64_t bytes)
    {
        struct statvfs facts {};
        ASSERT_EQ(0, statvfs(folder.c_str(), &facts));
        const uint64_t used = (facts.f_blocks - facts.f_bfree) * facts.f_frsize;
        const std::string size = "size=" + std::to_string(used + bytes);
        ASSERT_EQ(0, mount("fodr-test", folder.c_str(), "tmpfs", MS_REMOUNT, size.c_str()));
        ASSERT_EQ(0, statvfs(folder.c_str(), &facts));
        ASSERT_EQ(bytes, facts.f_bavail * facts.f_frsize);
    }
    // What a line leaves in the file, and what the look at the disk behind it does.
    std::string Log(const std::string &text, int32_t level = LOG_LEVEL_INFO)
    {
        writer->Put(text, level);
        writer->EndWrite();
        const std::string content = writer->Content();
        return content.substr(std::exchange(seen, content.size()));
    }
    bool IsSuspended() { return writer->IsSuppressed(LogMessage(LOG_LEVEL_WARN)); }

    static constexpr uint64_t kMB = 1 << 20;
    static constexpr uint64_t kPage = 4096;

    test::ScratchFolder scratch;
    const std::string folder = scratch.MakeFolder("disk");
    std::unique_ptr<test::TmpfsMount> disk;
    RCPtr<DirectFileWriter> writer;
    size_t seen = 0;
};

TEST_F(SmallDisk, AtTheLowThresholdAllButAlwaysAndErrorIsLost)
{
    SetFree(5 * kMB + kPage);
    EXPECT_EQ("still\n", Log("still"));
    EXPECT_FALSE(IsSuspended());
    SetFree(5 * kMB);
    EXPECT_THAT(Log("last"), MatchesRegex("last\n\n....-..-.. ..:..:..\\.... <[0-9A-F]+> \\[[0-9A-F]+\\] "
                                          "\\*{7} Free disk space is 5\\.0MB - Logging suspended \\*{7}\n"));
    EXPECT_EQ("", Log("lost", LOG_LEVEL_WARN));
    EXPECT_EQ("", Log("lost", LOG_LEVEL_INFO));
    EXPECT_EQ("kept\n", Log("kept", LOG_LEVEL_ERROR));
    EXPECT_EQ("kept\n", Log("kept", LOG_LEVEL_ALWAYS));
}

TEST_F(SmallDisk, ResumesAtTheHighThresholdButFiftyAboveTheLowOneAtLeast)
{
    const std::pair<const char *, uint64_t> thresholds[] = {{"8", 55}, {"55", 55}, {"60", 60}};
    for (const auto &[high, resumed] : thresholds) {
        writer->SetValue("diskThresholdHighMB", high);
        SetFree(kMB);
        Log("suspends");
        ASSERT_TRUE(IsSuspended());
        SetFree(resumed * kMB - kPage);
        EXPECT_EQ("", Log("lost"));
        SetFree(resumed * kMB);
        EXPECT_THAT(Log("lost, as the disk is looked at behind the line"),
                    MatchesRegex("[^\n]*\\] \\*{7} Free disk space is " + std::to_string(resumed) +
                                 "\\.0MB - Logging resumed after [0-9.:]+m?s \\*{7}\n\n"));
        EXPECT_EQ("kept\n", Log("kept"));
    }
}

TEST_F(SmallDisk, ALoweredLowThresholdResumesAtTheNextLook)
{
    SetFree(5 * kMB);
    Log("suspends");
    SetFree(4 * kMB);
    writer->SetValue("diskThresholdLowMB", "5"); // not lower
    Log("lost");
    EXPECT_TRUE(IsSuspended());
    writer->SetValue("diskThresholdLowMB", "4");
    EXPECT_THAT(Log("lost"), HasSubstr("Free disk space is 4.0MB - Logging resumed after "));
    // At the threshold itself the next look suspends again.
    EXPECT_THAT(Log("kept"), HasSubstr("Logging suspended"));
    writer->SetValue("diskThresholdLowMB", "3");
    SetFree(3 * kMB - kPage); // lower by then
    Log("lost");
    EXPECT_TRUE(IsSuspended());
    SetFree(3 * kMB); // the lowering counted for one look only
    Log("lost");
    EXPECT_TRUE(IsSuspended());
}

TEST_F(SmallDisk, AFullOneLosesLinesAndNothingElse)
{
    writer->SetValue("diskThresholdLowMB", "0");
    SetFree(0);
    Log(std::string(10000, 'x'), LOG_LEVEL_ERROR);
    EXPECT_TRUE(IsSuspended());
    SetFree(60 * kMB);
    Log("the stream may still hold what didn't fit", LOG_LEVEL_ERROR);
    EXPECT_FALSE(IsSuspended());
    EXPECT_THAT(Log("goes on"), testing::EndsWith("goes on\n"));
}

} // namespace
} // namespace fodr
