// The sinks that aren't files.
#include "MatchesPattern.h"
#include "logging/DebugWriter.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "logging/ProxyWriter.h"
#include "logging/SocketWriter.h"
#include "logging/StdErrWriter.h"
#include "logging/StdOutWriter.h"

#include <cstdarg>
#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fodr {
namespace {

using fodr::test::MatchesPattern;
using testing::ElementsAre;

constexpr const char *kNoMemory = "Failed to allocate memory for log message\n";

RCPtr<LogMessage> Message(const std::string &text)
{
    return LogMessage::Create(LOG_LEVEL_INFO, text.data(), text.size());
}

std::string PrefixOf(LogWriter &writer, const char *functionName, int32_t level)
{
    OVMutexLock held(LoggerMutex());
    char buffer[1024];
    const int length = writer.FormatPrefix(buffer, sizeof(buffer), functionName, level);
    return std::string(buffer, static_cast<size_t>(length));
}

std::vector<std::string> passedOn;

void TakeLog(const char *functionName, int32_t level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char text[2048];
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    passedOn.push_back(std::string(functionName) + "|" + std::to_string(level) + "|" + format + "|" + text);
}

TEST(ProxyWriter, PassesOriginAndLevelOn)
{
    passedOn.clear();
    RCPtr<ProxyWriter> writer = new ProxyWriter;
    EXPECT_TRUE(writer->OpenSink());
    EXPECT_FALSE(writer->WriteMessage(*Message("nobody listens")));
    writer->SetLogFunction(TakeLog);
    EXPECT_EQ("@PROXY/3FodrLogger::Start()/", PrefixOf(*writer, "FodrLogger::Start()", LOG_LEVEL_INFO));
    for (const std::string &text : {
             PrefixOf(*writer, "FodrLogger::Start()", LOG_LEVEL_INFO) + "100%s /slash",
             PrefixOf(*writer, "a/b()", LOG_LEVEL_VERBOSE) + "text",
             std::string("@PROXY/1/text"),
             std::string("  another writer's line"),
             std::string("   "),
         })
        EXPECT_TRUE(writer->WriteMessage(*Message(text))) << text;
    EXPECT_TRUE(writer->WriteMessage(LogMessage(LOG_LEVEL_ERROR)));
    EXPECT_THAT(passedOn,
                ElementsAre("FodrLogger::Start()|3|%s|100%s /slash\n", "a|6|%s|b()/text\n", "|1|%s|text\n",
                            "|0|%s|another writer's line\n", "|0|%s|\n", std::string("|0|%s|") + kNoMemory));
    for (const char *cut : {"@PROXY/", "@PROXY/3", "@PROXY/3F() no end"})
        EXPECT_FALSE(writer->WriteMessage(*Message(cut))) << cut;
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
    EXPECT_TRUE(out->CloseSink() && err->CloseSink() && debug->CloseSink());
}

std::string Get(LogWriter &writer, const char *name)
{
    std::string value;
    return writer.GetValue(name, value) ? value : "none";
}

TEST(SocketWriter, TakesItsSettingsUntilTheLoggerHasStarted)
{
    RCPtr<Logger> logger = new Logger("sockets", "sockets");
    RCPtr<LogWriter> writer = logger->CreateWriter(LOG_WRITER_SOCKET);
    ASSERT_TRUE(writer);
    EXPECT_TRUE(writer->IsBuffering());
    EXPECT_EQ("localhost", Get(*writer, "remoteAddress"));
    EXPECT_EQ("514", Get(*writer, "REMOTEPORT"));
    EXPECT_EQ("none", Get(*writer, "appName"));
    const std::pair<const char *, const char *> ports[] = {
        {"0x10", "16"}, {"65535", "65535"}, {"65536", "0"}, {"65537", "1"}};
    for (const auto &[text, port] : ports) {
        EXPECT_TRUE(writer->SetValue("remotePort", text));
        EXPECT_EQ(port, Get(*writer, "remotePort"));
    }
    EXPECT_TRUE(writer->SetValue("RemoteAddress", "127.0.0.1"));
    EXPECT_TRUE(writer->SetValue("something", "else"));
    EXPECT_FALSE(writer->SetValue("", "x"));
    EXPECT_FALSE(writer->SetValue("remoteAddress", ""));
    ASSERT_TRUE(logger->Start());
    EXPECT_FALSE(writer->SetValue("remoteAddress", "10.0.0.1"));
    EXPECT_EQ("127.0.0.1", Get(*writer, "remoteAddress"));
    logger->Stop();
    LoggerManager::Instance().Shutdown();
}

TEST(SocketWriter, ANameThatMeansNothingLeavesItClosed)
{
    RCPtr<SocketWriter> writer = new SocketWriter;
    writer->SetValue("remoteAddress", "no such host.invalid");
    EXPECT_FALSE(writer->Init());
    EXPECT_FALSE(writer->WriteMessage(*Message("lost")));
    EXPECT_TRUE(writer->CloseSink());
}

} // namespace
} // namespace fodr
