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
using testing::MatchesRegex;

class SmallDisk : public testing::Test {
protected:
    void SetUp() override
    {
        FODR_NEEDS_MOUNTS();
        disk = std::make_unique<test::TmpfsMount>(folder);
        SetFree(100 * kMB);
        writer = new DirectFileWriter(folder);
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
    // Pattern of a report.
    static std::string Report(const std::string &freeMB, const std::string &what)
    {
        return "....-..-.. ..:..:..\\.... <[0-9A-F]+> \\[[0-9A-F]+\\] \\*{7} Free disk space is " + freeMB +
               "\\.0MB - Logging " + what + " \\*{7}\n";
    }
    static std::string Suspended(const std::string &freeMB) { return "\n" + Report(freeMB, "suspended"); }
    static std::string Resumed(const std::string &freeMB)
    {
        return Report(freeMB, "resumed after [0-9.:]+m?s") + "\n";
    }

    static constexpr uint64_t kMB = 1 << 20;
    static constexpr uint64_t kPage = 4096;

    test::ScratchFolder scratch;
    const std::string folder = scratch.MakeFolder("disk");
    std::unique_ptr<test::TmpfsMount> disk;
    RCPtr<DirectFileWriter> writer;
    size_t seen = 0;
};

TEST_F(SmallDisk, SuspendsAtTheLowThresholdAndResumesAboveTheHighOne)
{
    const struct {
        const char *low, *high;
        uint64_t freeBytes;
        int32_t level;
        std::string left; // by "line"; the disk is looked at behind it
    } steps[] = {
        {"5", "8", 5 * kMB + kPage, LOG_LEVEL_INFO, "line\n"},
        {"5", "8", 5 * kMB, LOG_LEVEL_INFO, "line\n" + Suspended("5")},
        {"5", "8", 5 * kMB, LOG_LEVEL_WARN, ""},
        {"5", "8", 5 * kMB, LOG_LEVEL_ERROR, "line\n"},
        {"5", "8", 5 * kMB, LOG_LEVEL_ALWAYS, "line\n"},
        {"5", "8", 55 * kMB - kPage, LOG_LEVEL_INFO, ""}, // fifty above the low one at least
        {"5", "8", 55 * kMB, LOG_LEVEL_INFO, Resumed("55")},
        {"5", "60", 55 * kMB, LOG_LEVEL_INFO, "line\n"},
        {"5", "60", kMB, LOG_LEVEL_INFO, "line\n" + Suspended("1")},
        {"5", "60", 60 * kMB - kPage, LOG_LEVEL_INFO, ""},
        {"5", "60", 60 * kMB, LOG_LEVEL_INFO, Resumed("60")},
        {"5", "8", 5 * kMB, LOG_LEVEL_INFO, "line\n" + Suspended("5")},
        {"5", "8", 4 * kMB, LOG_LEVEL_INFO, ""},
        {"4", "8", 4 * kMB, LOG_LEVEL_INFO, Resumed("4")},   // as the low one was lowered
        {"4", "8", 4 * kMB, LOG_LEVEL_INFO, Suspended("4")}, // at it the next look suspends again
        {"3", "8", 3 * kMB - kPage, LOG_LEVEL_INFO, ""},     // less by then
        {"3", "8", 3 * kMB, LOG_LEVEL_INFO, ""},             // the lowering counted for one look only
    };
    for (const auto &step : steps) {
        writer->SetValue("diskThresholdLowMB", step.low);
        writer->SetValue("diskThresholdHighMB", step.high);
        SetFree(step.freeBytes);
        EXPECT_THAT(Log("line", step.level), MatchesRegex(step.left)) << "step " << &step - steps;
    }
}

TEST_F(SmallDisk, AFullOneLosesLinesAndNothingElse)
{
    writer->SetValue("diskThresholdHighMB", "8");
    SetFree(0);
    Log(std::string(10000, 'x'), LOG_LEVEL_ERROR);
    EXPECT_EQ("", Log("lost"));
    SetFree(60 * kMB);
    Log("the stream may still hold what didn't fit", LOG_LEVEL_ERROR);
    EXPECT_THAT(Log("goes on"), testing::EndsWith("goes on\n"));
}

} // namespace
} // namespace fodr
