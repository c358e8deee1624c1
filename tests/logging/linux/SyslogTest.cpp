// What arrives at a receiver of datagrams.
#include "DatagramReceiver.h"
#include "logging/LogSinks.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "logging/Messages.h"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fodr {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::MatchesRegex;

class Syslog : public testing::Test {
protected:
    ~Syslog() override
    {
        logger->Stop();
        LoggerManager::Instance().Shutdown();
    }
    void Configure(const RCPtr<LogWriter> &writer)
    {
        ASSERT_TRUE(writer);
        writer->SetBuffering(false);
        writer->SetValue("remoteAddress", "127.0.0.1");
        writer->SetValue("remotePort", std::to_string(receiver.Port()));
    }

    const test::DatagramReceiver receiver;
    RCPtr<Logger> logger = new Logger("syslog", "the-app");
};

TEST_F(Syslog, ALineIsADatagramUnderAShortHeader)
{
    Configure(logger->CreateWriter(LOG_WRITER_SOCKET));
    ASSERT_TRUE(logger->Start());
    for (int startUp = 0; startUp < 4; ++startUp)
        receiver.Take();
    LogWriteTo(logger, "F()", LOG_LEVEL_ERROR, "%s", "100% text");

    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    const std::string shown = strlen(host) > 15 ? "-" : host;
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";
    EXPECT_THAT(receiver.Take(), AllOf(MatchesRegex("<1>1 " + stamp + " .+\n"),
                                       EndsWith("Z " + shown + " the-app - - 100% text\n")));
}

TEST_F(Syslog, AWriterOfItsOwnHasNoApplication)
{
    RCPtr<SocketWriter> writer = new SocketWriter;
    Configure(writer);
    ASSERT_TRUE(writer->Init());
    EXPECT_THAT(test::PrefixOf(*writer, nullptr), EndsWith(" - - - "));
    EXPECT_TRUE(writer->WriteMessage(LogMessage(LOG_LEVEL_INFO)));
    EXPECT_EQ(test::kNoMemory, receiver.Take());
    EXPECT_FALSE(writer->WriteMessage(*test::Message(std::string(100000, 'x')))) << "too long for a datagram";
    writer->Close();
    EXPECT_FALSE(writer->WriteMessage(LogMessage(LOG_LEVEL_INFO)));
}

} // namespace
} // namespace fodr
