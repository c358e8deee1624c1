#include "logging/FileWriter.h"
#include "logging/linux/LoggerFixture.h"
#include "runtime/OVEvent.h"

#include <atomic>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sstream>
#include <thread>
#include <vector>

namespace fodr {
namespace {

using test::LoggerFixture;
using test::MemorySink;

std::string Value(const RCPtr<LogWriter> &writer, const char *name)
{
    std::string value;
    return writer && writer->GetValue(name, value) ? value : "none";
}

// ---- At start ----

using SettingsAtStart = LoggerFixture;

TEST_F(SettingsAtStart, TheLevelIsANameInAnyCase)
{
    struct Row {
        const char *line;
        int32_t level;
    };
    const Row rows[] = {
        {"logLevel=always", 0},  {"logLevel=ERROR", 1},
        {"logLevel=Warn", 2},    {"logLevel=info", 3},
        {"logLevel=Debug", 4},   {"logLevel=trace", 5},
        {"logLevel=verbose", 6}, {"logLevel=never", 2},
        {"logLevel=4", 2},       {"", 2},
    };
    for (const Row &row : rows) {
        logger->SetLevel(LOG_LEVEL_WARN); // stays unless a level is named
        EXPECT_EQ("", Apply({row.line}));
        EXPECT_EQ(row.level, logger->GetLevel()) << row.line;
        EXPECT_EQ(LOG_LEVEL_ALWAYS, gLogLevel) << "not before the start";
    }
}

TEST_F(SettingsAtStart, MakeTheWritersThatAreWanted)
{
    Store({"logEnabled=yes", "logToSyslog=dword:1", "logToStdout=false", "logToStderr=1",
           "logRemoteAddress=127.0.0.1", "logRemotePort=dword:65537", "logMaxDaysKept=dword:3",
           "logMaxFileSizeMB=dword:2000", "logMaxRollingFiles=0x10", "logDiskThresholdLowMB=dword:1",
           "logDiskThresholdHighMB=dword:2", "logDirectory=/nowhere/logs"});
    logger->ApplySettings(nullptr);
    EXPECT_FALSE(logger->GetWriter(LOG_WRITER_FILE));
    logger->ApplySettings(reader);
    const RCPtr<LogWriter> file = logger->GetWriter(LOG_WRITER_FILE);
    ASSERT_TRUE(file);
    EXPECT_EQ("3", Value(file, "maxDaysKept"));
    EXPECT_EQ("1024", Value(file, "maxFileSizeMB"));
    EXPECT_EQ("16", Value(file, "maxRollingFiles"));
    EXPECT_EQ("1", Value(file, "diskThresholdLowMB"));
    EXPECT_EQ("2", Value(file, "diskThresholdHighMB"));
    EXPECT_EQ("/nowhere/logs", Value(file, "folderPath"));
    EXPECT_EQ("127.0.0.1", Value(logger->GetWriter(LOG_WRITER_SOCKET), "remoteAddress"));
    EXPECT_EQ("1", Value(logger->GetWriter(LOG_WRITER_SOCKET), "remotePort"));
    EXPECT_FALSE(logger->GetWriter(LOG_WRITER_STDOUT));
    EXPECT_TRUE(logger->GetWriter(LOG_WRITER_STDERR)->IsEnabled());
    // It was made after the buffering was set, so it writes directly until the settings change.
    EXPECT_FALSE(logger->GetWriter(LOG_WRITER_STDERR)->IsBuffering());
}

// ---- While running ----

class SettingsWhileRunning : public LoggerFixture {
protected:
    void StartWithFile(std::initializer_list<const char *> lines)
    {
        RCPtr<LogWriter> file = logger->CreateWriter(LOG_WRITER_FILE);
        ASSERT_TRUE(file->SetValue("folderPath", settings.Folder()));
        Store(lines);
        logger->ApplySettings(reader);
        Start();
    }
};

TEST_F(SettingsWhileRunning, SayWhatChanged)
{
    StartWithFile({});
    EXPECT_EQ("", Apply({})) << "the sink in memory is queued from here on";
    sink->Poll();
    EXPECT_EQ("A RegistryReader: enableBuffering changed to TRUE\n", TextOf(sink->TakeText()));
    EXPECT_EQ("A RegistryReader: logLevel changed to DEBUG\n"
              "A RegistryReader: enableBuffering changed to FALSE\n"
              "A RegistryReader: enableBuffering changed to FALSE\n", // a line a writer
              Apply({"logLevel=debug", "enableBuffering=false"}));
}

TEST_F(SettingsWhileRunning, FollowTheLevelAndReturnToInfo)
{
    StartWithFile({"logLevel=warn", "enableBuffering=false"});
    EXPECT_EQ(LOG_LEVEL_WARN, gLogLevel);
    EXPECT_EQ("A RegistryReader: logLevel changed to DEBUG\n",
              Apply({"logLevel=debug", "enableBuffering=false"}));
    EXPECT_EQ(LOG_LEVEL_DEBUG, gLogLevel);
    EXPECT_EQ("50", Value(logger->GetWriter(LOG_WRITER_FILE), "maxFileSizeMB"));
    EXPECT_EQ("", Apply({"logLevel=debug", "enableBuffering=false"}));
    EXPECT_EQ("A RegistryReader: logLevel changed to INFO\n", Apply({"enableBuffering=false"}));
    EXPECT_EQ(LOG_LEVEL_INFO, gLogLevel);
    EXPECT_EQ("A RegistryReader: logLevel changed to ERROR\n",
              Apply({"logLevel=error", "enableBuffering=false"}));
    EXPECT_EQ("A RegistryReader: logLevel changed to INFO\n",
              Apply({"logLevel=never", "enableBuffering=false"}));
}

TEST_F(SettingsWhileRunning, FlagsThatVanishReturnToTheirDefaults)
{
    StartWithFile({"useLocalTime=false", "enableBuffering=false"});
    EXPECT_FALSE(logger->UsesLocalTime());
    EXPECT_EQ("A RegistryReader: useLocalTime changed to TRUE\n", Apply({"enableBuffering=false"}));
    EXPECT_TRUE(logger->UsesLocalTime());
    Apply({});
    EXPECT_TRUE(sink->IsBuffering());
    EXPECT_TRUE(logger->GetWriter(LOG_WRITER_FILE)->IsBuffering());
}

TEST_F(SettingsWhileRunning, SwitchSinksThatExistAndMakeNone)
{
    StartWithFile({"enableBuffering=false"});
    EXPECT_EQ("A RegistryReader: DEBUG - logToDebugView changed to FALSE\n",
              Apply({"enableBuffering=false", "logToDebugView=no", "logToSyslog=yes"}))
        << "the line reaches the sink that it silences";
    EXPECT_FALSE(sink->IsEnabled());
    EXPECT_FALSE(logger->GetWriter(LOG_WRITER_SOCKET));
    EXPECT_EQ("", Apply({"enableBuffering=false"})) << "an absent value leaves a sink as it is";
    EXPECT_EQ("A RegistryReader: DEBUG - logToDebugView changed to TRUE\n",
              Apply({"enableBuffering=false", "logToDebugView=yes"}));
    EXPECT_EQ("A RegistryReader: FILE - logEnabled changed to FALSE\n",
              Apply({"enableBuffering=false", "logEnabled=0"}));
    EXPECT_FALSE(logger->GetWriter(LOG_WRITER_FILE)->IsEnabled());
}

TEST_F(SettingsWhileRunning, FileNumbersThatAreCappedAreToldAgain)
{
    StartWithFile({"enableBuffering=false"});
    const std::string folder = Value(logger->GetWriter(LOG_WRITER_FILE), "folderPath");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ("A RegistryReader: FILE - logMaxRollingFiles changed to 2000\n",
                  Apply({"enableBuffering=false", "logMaxRollingFiles=dword:2000", "logDirectory=/other"}));
        EXPECT_EQ("1000", Value(logger->GetWriter(LOG_WRITER_FILE), "maxRollingFiles"));
    }
    EXPECT_EQ(folder, Value(logger->GetWriter(LOG_WRITER_FILE), "folderPath"));
}

TEST_F(SettingsWhileRunning, LoseNoLineUnderLoad)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    StartWithFile({});
    std::atomic<int> running = kThreads;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread, &running] {
            for (int i = 0; i < kLines; ++i)
                LOG_INFO("line %d %d", thread, i);
            --running;
        });
    }
    const char *const rounds[][2] = {{"enableBuffering=no", "logLevel=debug"},
                                     {"enableBuffering=yes", "useLocalTime=no"},
                                     {"logMaxRollingFiles=dword:7", "logLevel=trace"}};
    for (size_t round = 0; running > 0; ++round) {
        Store({rounds[round % 3][0], rounds[round % 3][1]});
        logger->ApplySettings(reader);
    }
    for (std::thread &thread : threads)
        thread.join();
    LoggerManager::Instance().Shutdown();
    int next[kThreads] = {};
    std::istringstream lines(sink->TakeText());
    for (std::string line; std::getline(lines, line);) {
        int thread = 0;
        int i = 0;
        const size_t text = line.find(": line ");
        if (text != std::string::npos && std::sscanf(line.c_str() + text, ": line %d %d", &thread, &i) == 2) {
            EXPECT_EQ(next[thread]++, i) << line;
        }
    }
    EXPECT_THAT(next, testing::Each(kLines));
}

// Another process makes the key, of which there was nothing, and the change arrives on the poll thread.
TEST_F(SettingsWhileRunning, AreFollowedAcrossProcesses)
{
    ASSERT_TRUE(logger->AddRegistryReader(kKey, platform::RegistryRoot::LocalMachine));
    Start();
    OVEvent changed(true, false);
    sink->OnWrite([&](const LogMessage &message) {
        if (std::string_view(message.TextToWrite()).ends_with("logLevel changed to VERBOSE\n"))
            changed.Set();
    });
    const std::string path = settings.Folder() + "/HKEY_LOCAL_MACHINE.ini";
    const std::string lines = std::string("'[") + kKey + "]' logLevel=verbose enableBuffering=no";
    ASSERT_EQ(
        0, std::system(
               ("printf '%s\\n' " + lines + " > " + path + ".new && mv " + path + ".new " + path).c_str()));
    EXPECT_EQ(OVEvent::kSignalled, changed.Wait(60000));
    EXPECT_EQ(LOG_LEVEL_VERBOSE, gLogLevel);
    sink->OnWrite(nullptr);
}

} // namespace
} // namespace fodr
