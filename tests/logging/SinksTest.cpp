// The sinks that aren't files.
#include "logging/LogSinks.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "logging/Messages.h"

#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace fodr {
namespace {

using test::kNoMemory;
using test::Message;
using test::PrefixOf;
using test::ValueOf;

std::string passedOn;

void TakeLog(const char *functionName, int32_t level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char text[2048];
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    passedOn = std::string(functionName) + "|" + std::to_string(level) + "|" + format + "|" + text;
}

TEST(ProxyWriter, PassesOriginAndLevelOn)
{
    RCPtr<ProxyWriter> writer = new ProxyWriter;
    EXPECT_TRUE(writer->OpenSink());
    EXPECT_FALSE(writer->WriteMessage(*Message("nobody listens")));
    writer->SetLogFunction(TakeLog);
    const std::pair<std::string, std::string> lines[] = {
        {PrefixOf(*writer, "F::Start()") + "100%s /slash", "F::Start()|3|%s|100%s /slash\n"},
        {PrefixOf(*writer, "a/b()", LOG_LEVEL_VERBOSE) + "text", "a|6|%s|b()/text\n"},
        {"@PROXY/1/text", "|1|%s|text\n"},
        {"  another writer's line", "|0|%s|another writer's line\n"},
        {"   ", "|0|%s|\n"},
        {"@PROXY/", ""},
        {"@PROXY/3", ""},
        {"@PROXY/3F() no end", ""},
    };
    for (const auto &[line, heard] : lines) {
        passedOn.clear();
        EXPECT_EQ(writer->WriteMessage(*Message(line)), !heard.empty()) << line;
        EXPECT_EQ(passedOn, heard);
    }
    EXPECT_TRUE(writer->WriteMessage(LogMessage(LOG_LEVEL_ERROR)));
    EXPECT_EQ(passedOn, std::string("|0|%s|") + kNoMemory);
    EXPECT_TRUE(writer->CloseSink());
    EXPECT_FALSE(writer->WriteMessage(*Message("closed")));
}

TEST(StreamWriters, WriteTheLineAsItStands)
{
    RCPtr<LogWriter> out = new StdOutWriter, err = new StdErrWriter, debug = new DebugWriter;
    for (const RCPtr<LogWriter> &writer : {out, err, debug}) {
        EXPECT_TRUE(writer->OpenSink());
        EXPECT_FALSE(writer->IsBuffering());
    }
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    for (const RCPtr<LogWriter> &writer : {out, err, debug}) {
        EXPECT_TRUE(writer->WriteMessage(*Message("100%s prefix: text")));
        EXPECT_TRUE(writer->WriteMessage(LogMessage(LOG_LEVEL_INFO)));
    }
    const std::string lines = std::string("100%s prefix: text\n") + kNoMemory;
    EXPECT_EQ(lines, testing::internal::GetCapturedStdout());
    EXPECT_EQ(lines, testing::internal::GetCapturedStderr());
}

TEST(SocketWriter, TakesItsSettingsUntilTheLoggerHasStarted)
{
    RCPtr<Logger> logger = new Logger("sockets", "sockets");
    RCPtr<LogWriter> writer = logger->CreateWriter(LOG_WRITER_SOCKET);
    ASSERT_TRUE(writer);
    EXPECT_TRUE(writer->IsBuffering());
    EXPECT_EQ("localhost", ValueOf(writer, "remoteAddress"));
    EXPECT_EQ("514", ValueOf(writer, "REMOTEPORT"));
    EXPECT_EQ("none", ValueOf(writer, "appName"));
    const std::tuple<const char *, const char *, const char *> values[] = {
        {"remotePort", "0x10", "16"},  {"remotePort", "65535", "65535"},
        {"remotePort", "65536", "0"},  {"remotePort", "65537", "1"},
        {"something", "else", "none"}, {"RemoteAddress", "127.0.0.1", "127.0.0.1"},
    };
    for (const auto &[name, value, kept] : values) {
        EXPECT_TRUE(writer->SetValue(name, value));
        EXPECT_EQ(kept, ValueOf(writer, name)) << value;
    }
    EXPECT_FALSE(writer->SetValue("", "x"));
    EXPECT_FALSE(writer->SetValue("remoteAddress", ""));
    ASSERT_TRUE(logger->Start());
    EXPECT_FALSE(writer->SetValue("remoteAddress", "10.0.0.1"));
    EXPECT_EQ("127.0.0.1", ValueOf(writer, "remoteAddress"));
    logger->Stop();
    LoggerManager::Instance().Shutdown();

    RCPtr<SocketWriter> lost = new SocketWriter; // to a name that means nothing
    lost->SetValue("remoteAddress", "no such host.invalid");
    EXPECT_FALSE(lost->Init() || lost->WriteMessage(*Message("lost")));
    EXPECT_TRUE(lost->CloseSink());
}

} // namespace
} // namespace fodr
