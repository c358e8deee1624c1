// A logger with settings of its own, and its log in memory.
#pragma once

#include "SettingsFixture.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "logging/LoggerSettings.h"
#include "logging/MemorySink.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace fodr::test {

class LoggerFixture : public testing::Test {
protected:
    static constexpr const char *kKey = "Software\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";

    LoggerFixture()
    {
        EXPECT_TRUE(logger->AddWriter(sink));
        LoggerManager::Instance().SetDefaultLogger(logger);
    }
    ~LoggerFixture() override { LoggerManager::Instance().Shutdown(); }

    // The settings are these lines from now on, in one step.
    void Store(const std::string &lines) { settings.Store(std::string("[") + kKey + "]\n" + lines); }
    // What a started logger says about settings that it is shown.
    std::string Apply(const std::string &lines)
    {
        Store(lines);
        sink->Take();
        logger->ApplySettings(reader);
        return TextOf(sink->TakeText());
    }
    void Start()
    {
        ASSERT_TRUE(logger->Start());
        sink->Take();
    }
    // The lines without what stands before the function's name, and without what the log file says of itself.
    static std::string TextOf(const std::string &lines)
    {
        std::string text;
        std::istringstream stream(lines);
        for (std::string line; std::getline(stream, line);) {
            const size_t ids = line.find("] ");
            if (!line.starts_with("-----") && line.find(" FileWriter::") == std::string::npos)
                text += (ids == std::string::npos ? line : line.substr(ids + 2)) + "\n";
        }
        return text;
    }

    SettingsFixture settings;
    const RCPtr<MemorySink> sink = new MemorySink;
    const RCPtr<Logger> logger = LoggerManager::Instance().CreateLogger("test", "test", false);
    const RCPtr<SettingsReader> reader = new RegSettingsReader(logger.Get(), std::string("HKLM\\") + kKey);
};

} // namespace fodr::test
