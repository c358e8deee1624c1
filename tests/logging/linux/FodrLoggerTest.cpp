#include "logging/FodrLogger.h"

#include "SettingsFixture.h"
#include "logging/LoggerManager.h"
#include "platform/Process.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fodr {
namespace {

class FodrLoggerFile : public testing::Test {
protected:
    FodrLoggerFile()
    {
        std::filesystem::create_directory(folder);
        settings.SetText("logDirectory", folder);
    }

    std::string Text() const
    {
        const std::string name =
            "orvane-LumenFodr-Client-" + std::to_string(platform::CurrentProcessId()) + ".log";
        std::ifstream file(folder + "/" + name);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    test::SettingsFixture settings;
    const std::string folder = settings.Folder() + "/logs";
};

TEST_F(FodrLoggerFile, HasItAllOnceTheLoggerStopped)
{
    FodrLogger logger;
    EXPECT_EQ(LOG_LEVEL_ALWAYS, logger.Level());
    logger.Start("LumenFodr-Client");
    EXPECT_EQ(LOG_LEVEL_INFO, logger.Level());
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([thread] {
            for (int i = 0; i < 1000; ++i)
                LogWrite("F()", LOG_LEVEL_INFO, "line %d of %d", i, thread);
        });
    for (std::thread &thread : threads)
        thread.join();
    LogWrite("F()", LOG_LEVEL_DEBUG, "not this");
    logger.Stop();
    logger.Stop();
    EXPECT_EQ(LOG_LEVEL_ALWAYS, logger.Level());

    std::istringstream lines(Text());
    std::vector<std::string> order = {
        ": version=|: No version", " A OS Version: ", " A Time Zone: ", " A Log Level: INFO (read from HKLM",
        " A FodrLogger::Start(): Log level is set to INFO"};
    int next[4] = {};
    size_t at = 0;
    for (std::string line; std::getline(lines, line);) {
        int i = 0;
        int thread = 0;
        const size_t text = line.find("F(): line ");
        if (text != std::string::npos) {
            ASSERT_EQ(2, std::sscanf(line.c_str() + text, "F(): line %d of %d", &i, &thread)) << line;
            EXPECT_EQ(next[thread]++, i) << "each thread in its order";
        } else if (line != std::string(39, '-') && line.find("] I ") == std::string::npos) {
            ASSERT_LT(at, order.size()) << line;
            const std::string &wanted = order[at++];
            const size_t bar = wanted.find('|');
            EXPECT_TRUE(line.find(wanted.substr(0, bar)) != std::string::npos ||
                        (bar != std::string::npos && line.find(wanted.substr(bar + 1)) != std::string::npos))
                << line;
        }
    }
    EXPECT_EQ(order.size(), at);
    EXPECT_THAT(next, testing::Each(1000));
}

TEST_F(FodrLoggerFile, IsWrittenAgainAfterARestart)
{
    FodrLogger logger;
    logger.Start("LumenFodr-Client");
    logger.Stop();
    logger.Start("LumenFodr-Client");
    LogWrite("F()", LOG_LEVEL_INFO, "again");
    logger.Stop();
    EXPECT_THAT(Text(), testing::ContainsRegex("NEW LOG SESSION STARTING(.|\n)*F\\(\\): again\n"));
}

TEST_F(FodrLoggerFile, KeepsTheFirstLoggerOfItsName)
{
    FodrLogger first;
    first.Start("LumenFodr-Client");
    {
        FodrLogger second;
        second.Start("LumenFodr-Client"); // there already
        EXPECT_EQ(LOG_LEVEL_ALWAYS, second.Level());
    }
    LogWrite("F()", LOG_LEVEL_INFO, "still here");
    first.Stop();
    EXPECT_THAT(Text(), testing::HasSubstr("F(): still here\n"));
}

TEST(FodrLoggerFailure, LeavesEverythingSilent)
{
    test::SettingsFixture settings;
    settings.SetText("logDirectory", settings.Folder() + "/missing/logs");
    FodrLogger logger;
    logger.Start("LumenFodr-Client");
    EXPECT_EQ(LOG_LEVEL_ALWAYS, gLogLevel);
    LogWrite("F()", LOG_LEVEL_ALWAYS, "to nobody");
}

} // namespace
} // namespace fodr
