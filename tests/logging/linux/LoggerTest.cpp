#include "logging/Logger.h"

#include "logging/linux/LoggerFixture.h"
#include "platform/SystemError.h"
#include "runtime/LogCall.h"

#include <cstdlib>
#include <ctime>
#include <gmock/gmock.h>

namespace fodr {
namespace {

using test::LoggerFixture;
using test::MemorySink;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

using LoggerLines = LoggerFixture;

TEST_F(LoggerLines, PassUpToTheLevelAndOnlyWhileTheLoggerRuns)
{
    EXPECT_EQ(LOG_LEVEL_ALWAYS, gLogLevel);
    LogWrite("F()", LOG_LEVEL_ALWAYS, "too early");
    EXPECT_EQ("", sink->TakeText());
    Start();
    EXPECT_EQ(LOG_LEVEL_INFO, gLogLevel);
    LogWrite("F()", LOG_LEVEL_INFO, "%d apples", 3);
    LogWrite("F()", LOG_LEVEL_DEBUG, "not this"); // tested again behind the test of the call
    LogWrite("F()", LOG_LEVEL_WARN, "ends itself\n");
    EXPECT_EQ("I F(): 3 apples\nW F(): ends itself\n", TextOf(sink->TakeText()));
    LoggerManager::Instance().SetDefaultLogger(nullptr);
    EXPECT_EQ(LOG_LEVEL_ALWAYS, gLogLevel);
    LogWrite("F()", LOG_LEVEL_ALWAYS, "to nobody");
    LogWriteTo(logger, "F()", LOG_LEVEL_ERROR, "%s", "to this one");
    EXPECT_EQ("E F(): to this one\n", TextOf(sink->TakeText()));
    LoggerManager::Instance().SetDefaultLogger(logger);
    EXPECT_EQ(LOG_LEVEL_INFO, gLogLevel);
}

TEST_F(LoggerLines, NothingRevivesThePollThreadWhileTheLogIsShutDown)
{
    Start();
    bool revived = true;
    sink->closeMessage = "the end\n";
    sink->OnWrite(
        [&](const LogMessage &) { revived = LoggerManager::Instance().GetPollThread()->IsRunning(); });
    LoggerManager::Instance().Shutdown();
    EXPECT_FALSE(revived);
    EXPECT_TRUE(LoggerManager::Instance().GetPollThread()->IsRunning()); // for the next logger
}

TEST_F(LoggerLines, AreCutWithoutAMark)
{
    Start();
    LogWrite("F()", LOG_LEVEL_INFO, "%s", std::string(2000, 'x').c_str());
    const std::string line = sink->TakeText();
    EXPECT_EQ(1024u, line.size());
    EXPECT_TRUE(line.ends_with("xx\n"));
    LogWrite(std::string(2000, 'f').c_str(), LOG_LEVEL_INFO, "unseen");
    EXPECT_EQ(1024u, sink->TakeText().size());
}

TEST_F(LoggerLines, CarryDumpsAndErrors)
{
    Start();
    LogWriteHex("F()", LOG_LEVEL_INFO, "AB\x01", 3);
    EXPECT_THAT(TextOf(sink->TakeText()), MatchesRegex("I F\\(\\): 0x0000: 41 42 01 +AB\\. +\n"));
    LogWriteHex("F()", LOG_LEVEL_INFO, std::string(4000, 'A').data(), 4000);
    EXPECT_THAT(sink->TakeText(), HasSubstr("BUFFER TOO SMALL"));
    const std::string text = platform::SystemErrorText(platform::kErrorFileNotFound);
    LogWriteError(platform::kErrorFileNotFound, "F()", LOG_LEVEL_ERROR, "open(%s) failed\n", "x");
    EXPECT_EQ("E F(): open(x) failed; (2) " + text + "\n", TextOf(sink->TakeText()));
    errno = ENOENT;
    LogWriteLastError("F()", LOG_LEVEL_ERROR, "open");
    EXPECT_EQ("E F(): open; (2) " + text + "\n", TextOf(sink->TakeText()));
}

const char *SayAndName(const char *name)
{
    LogWrite("Argument()", LOG_LEVEL_ALWAYS, "evaluated before the call");
    return name;
}

TEST_F(LoggerLines, FromInsideTheLogPathAreDropped)
{
    Start();
    sink->OnWrite([](const LogMessage &) { LogWrite("Sink()", LOG_LEVEL_ALWAYS, "again"); });
    LogWrite("F()", LOG_LEVEL_INFO, "one");
    LogWriteTo(logger, "F()", LOG_LEVEL_INFO, "two");
    EXPECT_EQ("I F(): one\nI F(): two\n", TextOf(sink->TakeText()));
    sink->OnWrite(nullptr);
    LogWrite("F()", LOG_LEVEL_INFO, "%s", SayAndName("three"));
    EXPECT_EQ("A Argument(): evaluated before the call\nI F(): three\n", TextOf(sink->TakeText()));
}

TEST_F(LoggerLines, ShowTheClockThatIsSet)
{
    EXPECT_THAT(test::PrefixOf(*sink, "F()"), MatchesRegex("[0-9-]{10} [0-9:]{8}\\.[0-9]{3} <.*"));
    Apply("useLocalTime=false");
    EXPECT_THAT(test::PrefixOf(*sink, "F()"), MatchesRegex("[0-9-]{10}T[0-9:]{8}\\.[0-9]{3}Z <.*"));
}

// A sink with a prefix of its own.
class OwnPrefixSink : public MemorySink {
public:
    using MemorySink::MemorySink;
    int FormatPrefix(char *buffer, size_t, const char *, int32_t) override
    {
        memcpy(buffer, "OWN ", 5);
        return 4;
    }
};

TEST_F(LoggerLines, HaveThePrefixOfTheFirstOpenWriter)
{
    const RCPtr<MemorySink> own = new OwnPrefixSink(LOG_WRITER_STDERR);
    const RCPtr<MemorySink> closed = new OwnPrefixSink(LOG_WRITER_FILE);
    closed->opens = false;
    ASSERT_TRUE(logger->AddWriter(own));
    ASSERT_TRUE(logger->AddWriter(closed));
    Start();
    own->Take();
    LogWrite("F()", LOG_LEVEL_INFO, "shared");
    const std::string line = sink->TakeText();
    EXPECT_EQ("I F(): shared\n", TextOf(line));
    EXPECT_THAT(own->TakeText(), HasSubstr(line));
    EXPECT_EQ("", closed->TakeText());
    sink->Close();
    LogWrite("F()", LOG_LEVEL_INFO, "alone");
    EXPECT_THAT(own->TakeText(), HasSubstr("OWN alone\n"));
}

TEST_F(LoggerLines, BeginWithTheFactsOfTheRun)
{
    const std::tuple<const char *, const char *, const char *> rows[] = {
        {"CET-1", "true", "CET \\(UTC \\+1\\), UTC time is [0-9-]+T[0-9:.]+Z"},
        {"IST-5:30", "true", "IST \\(UTC \\+5:30\\), UTC time is [0-9-]+T[0-9:.]+Z"},
        {"NST3:05", "false", "NST \\(UTC -3:05\\), Local time is [0-9-]+ [0-9:.]+"},
        {"UTC0", "false", "UTC \\(UTC -0\\), Local time is [0-9-]+ [0-9:.]+"},
    };
    const std::string first = "A /[^:]+: (version=.+|No version information), buildtype=release/x64\n"
                              "A OS Version: .+, sessionId=[0-9]+\n"
                              "A Time Zone: ";
    const std::string last = "\nA Log Level: WARN \\(read from HKLM\\\\Software\\\\Orvane, Inc\\.\\\\Orvane "
                             "ODPService\\\\Plugins\\\\fodr\\\\logLevel\\)\n";
    Start(); // what it wrote then can be written again
    for (const auto &[zone, localTime, text] : rows) {
        setenv("TZ", zone, 1);
        tzset();
        Apply(std::string("enableBuffering=false\nlogLevel=warn\nuseLocalTime=") + localTime);
        logger->LogStartupInfo();
        EXPECT_THAT(TextOf(sink->TakeText()), MatchesRegex(first + text + last));
    }
    unsetenv("TZ");
    tzset();
}

// ---- Life ----

using LoggerLife = LoggerFixture;

TEST_F(LoggerLife, IsConfiguredBeforeItStarts)
{
    EXPECT_TRUE(logger->SetLevel(LOG_LEVEL_DEBUG));
    sink->opens = false; // the one writer
    EXPECT_FALSE(logger->Start() || logger->IsStarted());
    EXPECT_EQ(LOG_LEVEL_ALWAYS, gLogLevel);
    sink->opens = true;
    EXPECT_STREQ("DEBUG", logger->GetLevelName());
    EXPECT_FALSE(logger->CreateWriter(LOG_WRITER_DEBUG)) << "there already";
    EXPECT_FALSE(logger->CreateWriter(6));
    EXPECT_FALSE(logger->CreateWriter(-1));
    const RCPtr<LogWriter> proxy = logger->CreateWriter(LOG_WRITER_PROXY);
    ASSERT_TRUE(proxy);
    EXPECT_EQ(proxy, logger->GetWriter(LOG_WRITER_PROXY));
    EXPECT_FALSE(logger->AddRegistryReader("", platform::RegistryRoot::LocalMachine));
    EXPECT_FALSE(logger->AddRegistryReader(kKey, platform::RegistryRoot::Users));
    EXPECT_TRUE(logger->AddRegistryReader(kKey, platform::RegistryRoot::LocalMachine));
    Start();
    EXPECT_TRUE(logger->Start());
    EXPECT_EQ(LOG_LEVEL_DEBUG, gLogLevel);
    EXPECT_FALSE(logger->SetLevel(LOG_LEVEL_ERROR));
    EXPECT_FALSE(logger->CreateWriter(LOG_WRITER_STDERR));
}

TEST_F(LoggerLife, EndsWithTheManager)
{
    LoggerManager &manager = LoggerManager::Instance();
    EXPECT_FALSE(manager.CreateLogger("", "token", true));
    EXPECT_FALSE(manager.CreateLogger("test", "token", true)) << "there already";
    EXPECT_EQ(logger, manager.FindLogger("test"));
    const RCPtr<Logger> earlier = manager.CreateLogger("a", "token", false);
    const RCPtr<MemorySink> other = new MemorySink;
    ASSERT_TRUE(earlier->AddWriter(other));
    ASSERT_TRUE(earlier->Start());
    Start();
    sink->SetBuffering(true);
    sink->LeavePollThread();
    LogWrite("F()", LOG_LEVEL_INFO, "queued");
    sink->OnWrite([&](const LogMessage &message) {
        if (std::string(message.TextToWrite()).ends_with("queued\n")) {
            EXPECT_THAT(other->Take(), testing::Contains("close"));
        }
    });
    manager.Shutdown();
    EXPECT_EQ("I F(): queued\n", TextOf(sink->TakeText())) << "and in the order of their names";
    EXPECT_FALSE(manager.GetDefaultLogger());
    EXPECT_FALSE(manager.FindLogger("test"));
    EXPECT_EQ(LOG_LEVEL_ALWAYS, gLogLevel);
    EXPECT_TRUE(manager.CreateLogger("test", "token", false)) << "the name is free again";
}

} // namespace
} // namespace fodr
