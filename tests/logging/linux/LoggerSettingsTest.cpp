#include "logging/FileWriter.h"
#include "logging/NumberedLines.h"
#include "logging/linux/LoggerFixture.h"
#include "runtime/OVEvent.h"
#include "runtime/PollItems.h"

namespace fodr {
namespace {

using test::LoggerFixture;
using test::ValueOf;

// ---- At start ----

using SettingsAtStart = LoggerFixture;

TEST_F(SettingsAtStart, TheLevelIsANameInAnyCase)
{
    const std::pair<const char *, int32_t> rows[] = {
        {"logLevel=always", 0},  {"logLevel=ERROR", 1},
        {"logLevel=Warn", 2},    {"logLevel=info", 3},
        {"logLevel=Debug", 4},   {"logLevel=trace", 5},
        {"logLevel=verbose", 6}, {"logLevel=never", 2},
        {"logLevel=4", 2},       {"", 2},
    };
    for (const auto &[line, level] : rows) {
        logger->SetLevel(LOG_LEVEL_WARN); // stays unless a level is named
        EXPECT_EQ("", Apply(line));
        EXPECT_EQ(level, logger->GetLevel()) << line;
        EXPECT_EQ(LOG_LEVEL_ALWAYS, gLogLevel) << "not before the start";
    }
}

TEST_F(SettingsAtStart, MakeTheWritersThatAreWanted)
{
    Store("logEnabled=yes\nlogToSyslog=dword:1\nlogToStdout=false\nlogToStderr=1\n"
          "logRemoteAddress=127.0.0.1\nlogRemotePort=dword:65537\nlogMaxDaysKept=dword:3\n"
          "logMaxFileSizeMB=dword:2000\nlogMaxRollingFiles=0x10\nlogDiskThresholdLowMB=dword:1\n"
          "logDiskThresholdHighMB=dword:2\nlogDirectory=/nowhere/logs\n");
    logger->ApplySettings(nullptr);
    EXPECT_FALSE(logger->GetWriter(LOG_WRITER_FILE));
    logger->ApplySettings(reader);
    const std::tuple<int32_t, const char *, const char *> values[] = {
        {LOG_WRITER_FILE, "maxDaysKept", "3"},
        {LOG_WRITER_FILE, "maxFileSizeMB", "1024"},
        {LOG_WRITER_FILE, "maxRollingFiles", "16"},
        {LOG_WRITER_FILE, "diskThresholdLowMB", "1"},
        {LOG_WRITER_FILE, "diskThresholdHighMB", "2"},
        {LOG_WRITER_FILE, "folderPath", "/nowhere/logs"},
        {LOG_WRITER_SOCKET, "remoteAddress", "127.0.0.1"},
        {LOG_WRITER_SOCKET, "remotePort", "1"},
    };
    for (const auto &[type, name, value] : values)
        EXPECT_EQ(value, ValueOf(logger->GetWriter(type), name)) << name;
    EXPECT_FALSE(logger->GetWriter(LOG_WRITER_STDOUT));
    EXPECT_TRUE(logger->GetWriter(LOG_WRITER_STDERR)->IsEnabled());
    EXPECT_TRUE(logger->GetWriter(LOG_WRITER_STDERR)->IsBuffering()); // every sink's default
}

// ---- While running ----

class SettingsWhileRunning : public LoggerFixture {
protected:
    void StartWithFile(const std::string &lines)
    {
        ASSERT_TRUE(logger->CreateWriter(LOG_WRITER_FILE)->SetValue("folderPath", settings.Folder()));
        Store(lines);
        logger->ApplySettings(reader);
        Start();
    }
};

TEST_F(SettingsWhileRunning, SayWhatChanged)
{
    const std::string direct = "enableBuffering=false\n";
    StartWithFile(direct + "logLevel=warn\n");
    const RCPtr<LogWriter> file = logger->GetWriter(LOG_WRITER_FILE);
    EXPECT_EQ(LOG_LEVEL_WARN, gLogLevel);
    const std::tuple<const char *, std::string, int32_t> steps[] = {
        {"logLevel=debug", "logLevel changed to DEBUG", LOG_LEVEL_DEBUG},
        {"logLevel=debug", "", LOG_LEVEL_DEBUG},
        {"", "logLevel changed to INFO", LOG_LEVEL_INFO},
        {"logLevel=error", "logLevel changed to ERROR", LOG_LEVEL_ERROR},
        {"logLevel=never", "logLevel changed to INFO", LOG_LEVEL_INFO},
        {"useLocalTime=false", "useLocalTime changed to FALSE", LOG_LEVEL_INFO},
        {"", "useLocalTime changed to TRUE", LOG_LEVEL_INFO},
        // The line reaches the sink that it silences. Nothing is made; an absent value leaves things be.
        {"logToDebugView=no\nlogToSyslog=yes", "DEBUG - logToDebugView changed to FALSE", LOG_LEVEL_INFO},
        {"", "", LOG_LEVEL_INFO},
        {"logToDebugView=yes", "DEBUG - logToDebugView changed to TRUE", LOG_LEVEL_INFO},
        // A number that is capped is told again.
        {"logMaxRollingFiles=dword:2000\nlogDirectory=/other", "FILE - logMaxRollingFiles changed to 2000",
         LOG_LEVEL_INFO},
        {"logMaxRollingFiles=dword:2000", "FILE - logMaxRollingFiles changed to 2000", LOG_LEVEL_INFO},
        {"logEnabled=0", "FILE - logEnabled changed to FALSE", LOG_LEVEL_INFO},
        {"logLevel=debug", "logLevel changed to DEBUG", LOG_LEVEL_DEBUG},
    };
    for (const auto &[lines, said, level] : steps) {
        EXPECT_EQ(said.empty() ? "" : "A RegistryReader: " + said + "\n", Apply(direct + lines)) << lines;
        EXPECT_EQ(level, gLogLevel) << lines;
    }
    EXPECT_FALSE(logger->GetWriter(LOG_WRITER_SOCKET));
    EXPECT_FALSE(file->IsEnabled());
    EXPECT_EQ("50", ValueOf(file, "maxFileSizeMB"));
    EXPECT_EQ("1000", ValueOf(file, "maxRollingFiles"));
    EXPECT_EQ(settings.Folder(), ValueOf(file, "folderPath"));
}

TEST_F(SettingsWhileRunning, BufferingReturnsToItsDefault)
{
    StartWithFile("");
    EXPECT_TRUE(sink->IsBuffering()) << "from the start on";
    sink->LeavePollThread();
    sink->Poll(); // which writes what the log begins with
    EXPECT_EQ("A RegistryReader: enableBuffering changed to FALSE\n"
              "A RegistryReader: enableBuffering changed to FALSE\n", // a line a writer
              Apply("enableBuffering=false"));
    Apply("");
    EXPECT_TRUE(sink->IsBuffering() && logger->GetWriter(LOG_WRITER_FILE)->IsBuffering());
}

TEST_F(SettingsWhileRunning, LoseNoLineUnderLoad)
{
    StartWithFile("");
    {
        const test::NumberedLines lines;
        const char *const rounds[] = {"enableBuffering=no\nlogLevel=debug",
                                      "enableBuffering=yes\nuseLocalTime=no",
                                      "logMaxRollingFiles=dword:7\nlogLevel=trace"};
        for (size_t round = 0; lines.AreComing(); ++round) {
            Store(rounds[round % 3]);
            logger->ApplySettings(reader);
        }
    }
    LoggerManager::Instance().Shutdown();
    test::NumberedLines::ExpectIn(sink->TakeText());
}

// There was nothing of the key. Each change arrives on the poll thread.
TEST_F(SettingsWhileRunning, AreFollowed)
{
    ASSERT_TRUE(logger->AddRegistryReader(kKey, platform::RegistryRoot::LocalMachine));
    Start();
    OVEvent watched(true, false), changed(false, false);
    const RCPtr<OVPollItem> last(new test::FunctionItem("last", [&](bool) {
        watched.Set();
        return false;
    }));
    LoggerManager::Instance().GetPollThread()->AddItem(last, nullptr, 0);
    watched.Wait(); // the reader, which is earlier in line, has had its first run
    sink->OnWrite([&](const LogMessage &message) {
        if (std::string_view(message.TextToWrite()).find(": logLevel changed to ") != std::string_view::npos)
            changed.Set();
    });
    for (const int32_t level : {LOG_LEVEL_VERBOSE, LOG_LEVEL_WARN}) {
        Store(std::string("enableBuffering=no\nlogLevel=") + LogLevelName(level));
        EXPECT_EQ(OVEvent::kSignalled, changed.Wait(60000));
        EXPECT_EQ(level, gLogLevel);
    }
    sink->OnWrite(nullptr);
}

} // namespace
} // namespace fodr
