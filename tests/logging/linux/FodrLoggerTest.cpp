#include "SettingsFixture.h"
#include "WholeFile.h"
#include "logging/LoggerManager.h"
#include "logging/NumberedLines.h"
#include "platform/Process.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace fodr {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

class FodrLoggerFile : public testing::Test {
protected:
    FodrLoggerFile()
    {
        std::filesystem::create_directory(folder);
        settings.SetText("logDirectory", folder);
        settings.SetNumber("logDiskThresholdLowMB", 0); // however full this disk is
    }

    std::string Text() const
    {
        return test::ReadWholeFile(folder + "/orvane-LumenFodr-Client-" +
                                   std::to_string(platform::CurrentProcessId()) + ".log");
    }

    test::SettingsFixture settings;
    const std::string folder = settings.Folder() + "/logs";
    FodrLogger logger;
};

TEST_F(FodrLoggerFile, HasItAllOnceTheLoggerStopped)
{
    EXPECT_EQ(LOG_LEVEL_ALWAYS, logger.Level());
    logger.Start("LumenFodr-Client");
    EXPECT_EQ(LOG_LEVEL_INFO, logger.Level());
    {
        const test::NumberedLines lines;
    }
    LogWrite("F()", LOG_LEVEL_DEBUG, "not this");
    {
        OVMutexLock held(LoggerMutex()); // which keeps the poll thread from the queue
        for (int i = 0; i < 15000; ++i)
            LogWrite("F()", LOG_LEVEL_INFO, "x");
    }
    logger.Stop();
    logger.Stop();
    EXPECT_EQ(LOG_LEVEL_ALWAYS, logger.Level());
    test::NumberedLines::ExpectIn(Text());
    EXPECT_THAT(Text(), testing::Not(ContainsRegex(
                            "not this|BATCH MODE"))); // the queue is longer than those of others
    EXPECT_THAT(
        Text().substr(0, Text().find(": line ")),
        ContainsRegex(" A OS Version: .+\n.+ A Time Zone: .+\n.+ A Log Level: INFO \\(read from HKLM.+\n"
                      ".+ A FodrLogger::Start\\(\\): Log level is set to INFO\n"));

    logger.Start("LumenFodr-Client");
    {
        FodrLogger second;
        second.Start("LumenFodr-Client"); // there already
        EXPECT_EQ(LOG_LEVEL_ALWAYS, second.Level());
    }
    LogWrite("F()", LOG_LEVEL_INFO, "again");
    logger.Stop();
    EXPECT_THAT(Text().substr(Text().rfind("NEW LOG SESSION STARTING")), HasSubstr("F(): again\n"));
}

TEST_F(FodrLoggerFile, ThatCantBeMadeLeavesEverythingSilent)
{
    settings.SetText("logDirectory", settings.Folder() + "/missing/logs");
    logger.Start("LumenFodr-Client");
    EXPECT_EQ(LOG_LEVEL_ALWAYS, gLogLevel);
    LogWrite("F()", LOG_LEVEL_ALWAYS, "to nobody");
}

} // namespace
} // namespace fodr
