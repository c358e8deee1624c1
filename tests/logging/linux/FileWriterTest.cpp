#include "logging/FileWriter.h"

#include "RealMount.h"
#include "logging/DirectFileWriter.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "runtime/CapturedLog.h"

#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

namespace fodr {
namespace {

namespace fs = std::filesystem;
using test::DirectFileWriter;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string kMegabyte((1 << 20) - 1, 'x'); // and a newline

class LogFiles : public testing::Test {
protected:
    ~LogFiles() override
    {
        writer = nullptr;
        LoggerManager::Instance().Shutdown();
    }
    // The numbers of this process's files that are there.
    std::set<int> Numbers()
    {
        std::set<int> numbers;
        for (int number = 1; number < 20; ++number) {
            const std::string behind = number == 1 ? "" : "(" + std::to_string(number) + ")";
            if (fs::exists(folder + "/" + DirectFileWriter::NameOf("default", behind)))
                numbers.insert(number);
        }
        return numbers;
    }
    std::string MakeFile(const std::string &name, int daysAgo, int minutes = 0)
    {
        const std::string path = folder + "/" + name;
        std::ofstream(path) << "old";
        fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(24 * daysAgo) -
                                      std::chrono::minutes(minutes));
        return path;
    }

    const test::ScratchFolder scratch;
    const std::string folder = scratch.Path();
    RCPtr<DirectFileWriter> writer = new DirectFileWriter(folder);
};

TEST_F(LogFiles, AreNamedAfterTheLogTheProcessAndTheirNumber)
{
    const struct {
        const char *token, *filename, *rolling;
        int32_t level;
        const char *log, *first, *second;
    } names[] = {
        {"LumenFodr-Client", "", "4", LOG_LEVEL_INFO, "LumenFodr-Client", "", "(2)"},
        {"LumenFodr-Client", "", "4", LOG_LEVEL_DEBUG, "LumenFodr-Client", "(1)", "(2)"},
        {"LumenFodr-Client", "mine", "4", LOG_LEVEL_ERROR, "mine", "", "(2)"},
        {"", "", "0", LOG_LEVEL_INFO, "default", "(0001)", "(0002)"},
    };
    for (const auto &name : names) {
        RCPtr<Logger> logger = new Logger("names", name.token);
        logger->SetLevel(name.level);
        RCPtr<DirectFileWriter> named = new DirectFileWriter(folder);
        ASSERT_TRUE(logger->AddWriter(named));
        named->SetValue("filename", name.filename);
        named->SetValue("maxRollingFiles", name.rolling);
        named->SetValue("maxFileSizeMB", "1");
        ASSERT_TRUE(named->Init());
        EXPECT_EQ(DirectFileWriter::NameOf(name.log, name.first), named->FileName());
        named->Put(kMegabyte);
        EXPECT_EQ(DirectFileWriter::NameOf(name.log, name.second), named->FileName());
        logger->Stop();
    }
}

TEST_F(LogFiles, TakeTheirSettings)
{
    const std::tuple<const char *, const char *, const char *> values[] = {
        {"maxDaysKept", "0x10", "16"},
        {"MAXDAYSKEPT", "-1", "4294967295"},
        {"maxFileSizeMB", "1024", "1024"},
        {"maxFileSizeMB", "1025", "1024"},
        {"maxFileSizeMB", "4294967294", "1024"},
        {"maxFileSizeMB", "4294967295", "15"}, // by the level from here on
        {"maxFileSizeMB", "99999999999", "15"},
        {"maxFileSizeMB", "0", "0"},
        {"maxRollingFiles", "1001", "1000"},
        {"maxRollingFiles", "010", "8"},
        {"diskThresholdLowMB", "5000", "5000"},
        {"diskThresholdHighMB", "7", "7"},
        {"folderPath", "/elsewhere", "/elsewhere"},
        {"anythingElse", "1", "none"},
    };
    for (const auto &[name, value, kept] : values) {
        EXPECT_TRUE(writer->SetValue(name, value)) << name;
        EXPECT_EQ(kept, writer->Get(name)) << name << "=" << value;
    }
    EXPECT_FALSE(writer->SetValue("", "1"));
    EXPECT_FALSE(writer->SetValue("maxDaysKept", ""));
    EXPECT_EQ("4294967295", writer->Get("maxDaysKept"));

    const std::pair<int32_t, const char *> limits[] = {
        {LOG_LEVEL_ALWAYS, "15"}, {LOG_LEVEL_INFO, "15"},    {LOG_LEVEL_DEBUG, "50"},
        {LOG_LEVEL_TRACE, "75"},  {LOG_LEVEL_VERBOSE, "99"}, {LOG_LEVEL_NEVER, "15"},
    };
    RCPtr<Logger> logger = new Logger("limits", "limits");
    RCPtr<DirectFileWriter> ofLogger = new DirectFileWriter(folder);
    ASSERT_TRUE(logger->AddWriter(ofLogger));
    for (const auto &[level, limit] : limits) {
        logger->SetLevel(level);
        EXPECT_EQ(limit, ofLogger->Get("maxFileSizeMB"));
    }
    logger->Stop();

    writer->SetValue("folderPath", folder);
    ASSERT_TRUE(writer->Init());
    EXPECT_FALSE(writer->SetValue("folderPath", "/elsewhere"));
    EXPECT_FALSE(writer->SetValue("FileName", "other"));
    EXPECT_EQ(folder, writer->Get("folderPath"));
}

TEST_F(LogFiles, RollAtTheVeryLimitAndKeepTheFirst)
{
    writer->SetValue("maxDaysKept", "1");
    writer->SetValue("maxFileSizeMB", "1");
    ASSERT_TRUE(writer->Init());
    writer->Put(kMegabyte.substr(1));
    EXPECT_EQ((std::set<int>{1}), Numbers());
    EXPECT_TRUE(writer->DeletionItem()->GetPollThread()); // which looks for old ones from the first file on
    writer->Put("");                                      // a newline
    EXPECT_EQ((std::set<int>{1, 2}), Numbers());
    EXPECT_EQ("", writer->Content());
    for (int number = 3; number <= 7; ++number)
        writer->Put(kMegabyte);
    EXPECT_EQ((std::set<int>{1, 4, 5, 6, 7}), Numbers());
    // One a roll is deleted, so that a lower number leaves older ones.
    writer->SetValue("maxRollingFiles", "2");
    writer->Put(kMegabyte);
    EXPECT_EQ((std::set<int>{1, 4, 5, 7, 8}), Numbers());
    writer->SetValue("maxFileSizeMB", "0");
    writer->Put(kMegabyte + kMegabyte);
    EXPECT_EQ((std::set<int>{1, 4, 5, 7, 8}), Numbers());
    EXPECT_TRUE(writer->DeletionItem()->GetPollThread());
    writer->Close();
    EXPECT_FALSE(writer->DeletionItem()->GetPollThread());
}

TEST_F(LogFiles, OfAFormerSessionAreAppendedToUnderABanner)
{
    ASSERT_TRUE(writer->Init());
    writer->Put("first");
    writer = nullptr;
    writer = new DirectFileWriter(folder);
    ASSERT_TRUE(writer->Init());
    EXPECT_TRUE(writer->WriteMessage(LogMessage(LOG_LEVEL_INFO))); // there was no memory for it
    writer->EndWrite();
    const std::string line(78, '*');
    EXPECT_EQ("first\n\n" + line + "\n" + std::string(24, '*') + "   NEW LOG SESSION STARTING   " +
                  std::string(24, '*') + "\n" + line + "\n\n" + test::kNoMemory,
              writer->Content());
}

TEST_F(LogFiles, ThatCantBeOpenedAreNotTriedAgain)
{
    writer->SetValue("maxFileSizeMB", "1");
    ASSERT_TRUE(writer->Init());
    fs::remove_all(folder);
    EXPECT_TRUE(writer->Write("to a file without a name"));
    writer->Put(kMegabyte);
    EXPECT_FALSE(writer->Write("lost"));
    fs::create_directories(folder);
    writer->Put(kMegabyte);
    EXPECT_FALSE(writer->Write("lost"));
    EXPECT_TRUE(fs::is_empty(folder));
    writer->Close();
    ASSERT_TRUE(writer->Init()); // now it is
    EXPECT_TRUE(writer->Write("kept"));
    writer->Close();
    std::ofstream(folder + "/a file");
    for (const char *name : {"/missing", "/a file"}) {
        writer->SetValue("folderPath", folder + name);
        EXPECT_FALSE(writer->Init() || writer->IsOpen() || writer->Write("lost")) << name;
    }
}

// ---- Old files ----

TEST_F(LogFiles, AreDeletedWhenTheyAreOldWhoeverWroteThem)
{
    ASSERT_TRUE(writer->Init());
    const std::string old = MakeFile("orvane-default-old.log", 8);
    const std::string current = MakeFile(writer->FileName(), 8);
    const std::string young = MakeFile("orvane-default-young(3).log", 7, -1);
    const std::string other = MakeFile("orvane-other-old.log", 8);
    const std::string directory = folder + "/orvane-default-directory.log";
    fs::create_directory(directory);
    fs::last_write_time(directory, fs::last_write_time(old));
    writer->SetValue("maxDaysKept", "7");
    {
        CapturedLog log(LOG_LEVEL_VERBOSE);
        EXPECT_TRUE(writer->DeletionItem()->Run(true));
        const std::string by = "FileWriter::DeleteOldLogFiles(): ";
        const std::vector<std::string> lines = CapturedLog::Lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ("I " + by + "Deleting \"" + folder + "/orvane-default-*.log\" older than 7 days", lines[0]);
        EXPECT_THAT(lines,
                    testing::IsSupersetOf({"I " + by + "Deleted \"" + old + "\"",
                                           "V " + by + "Skipping \"" + young + "\"",
                                           "I " + by + "Skipping current log file \"" + current + "\""}));
        EXPECT_THAT(lines, testing::Not(testing::Contains(
                               testing::ContainsRegex("orvane-(other|default-directory)"))));
        EXPECT_EQ(4 * 3600 * 1000, writer->DeletionItem()->GetTimeoutMS());
    }
    EXPECT_FALSE(fs::exists(old));
    for (const std::string &kept : {current, young, other, directory})
        EXPECT_TRUE(fs::exists(kept)) << kept;
}

TEST_F(LogFiles, AreDeletedTwentyAtATime)
{
    ASSERT_TRUE(writer->Init());
    for (int i = 0; i < 45; ++i)
        MakeFile("orvane-default-old" + std::to_string(i) + ".log", 2);
    auto left = [&] { return std::distance(fs::directory_iterator(folder), fs::directory_iterator()) - 1; };
    EXPECT_TRUE(writer->DeletionItem()->Run(true)); // off, as the fixture left it
    EXPECT_EQ(45, left());
    writer->SetValue("maxDaysKept", "1");
    const std::pair<int, int> runs[] = {{25, 1000}, {5, 1000}, {0, 4 * 3600 * 1000}};
    for (const auto &[files, nextRunMS] : runs) {
        EXPECT_TRUE(writer->DeletionItem()->Run(true));
        EXPECT_EQ(files, left());
        EXPECT_EQ(nextRunMS, writer->DeletionItem()->GetTimeoutMS());
    }
    MakeFile("orvane-default-old.log", 10000);
    writer->SetValue("maxDaysKept", "21350399"); // no file is that old, and 64 bits of its time overflow
    writer->DeletionItem()->Run(true);
    EXPECT_EQ(1, left());
}

} // namespace
} // namespace fodr
