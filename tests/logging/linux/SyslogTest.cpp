// What arrives at a receiver of datagrams.
#include "logging/DirectFileWriter.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "logging/SocketWriter.h"

#include <unistd.h>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

namespace fodr {
namespace {

using testing::MatchesRegex;

class Receiver {
public:
    Receiver() : descriptor(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        timeval limit{20, 0};
        setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        EXPECT_EQ(0, bind(descriptor, reinterpret_cast<sockaddr *>(&address), length));
        EXPECT_EQ(0, getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &length));
        port = std::to_string(ntohs(address.sin_port));
    }
    ~Receiver() { close(descriptor); }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    std::string Take()
    {
        char datagram[2048];
        const ssize_t length = recv(descriptor, datagram, sizeof(datagram), 0);
        return length < 0 ? "nothing came" : std::string(datagram, static_cast<size_t>(length));
    }

    std::string port;

private:
    int descriptor;
};

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
        writer->SetValue("remotePort", receiver.port);
    }

    Receiver receiver;
    RCPtr<Logger> logger = new Logger("syslog", "the-app");
};

TEST_F(Syslog, ALineIsADatagramUnderAShortHeader)
{
    Configure(logger->CreateWriter(LOG_WRITER_SOCKET));
    ASSERT_TRUE(logger->Start());
    for (int startUp = 0; startUp < 4; ++startUp)
        receiver.Take();
    LogWriteTo(logger, "F()", LOG_LEVEL_ERROR, "%s", "100% text");
    LogWriteTo(logger, "F()", LOG_LEVEL_INFO, "more\n");

    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    const std::string shown = strlen(host) > 15 ? "-" : host;
    const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";
    EXPECT_THAT(receiver.Take(), MatchesRegex("<1>1 " + stamp + " " + shown + " the-app - - 100% text\n"));
    EXPECT_THAT(receiver.Take(), MatchesRegex("<1>1 " + stamp + " " + shown + " the-app - - more\n"));
}

TEST_F(Syslog, BehindAnotherWriterALineHasThatOnesPrefix)
{
    const std::string folder = testing::TempDir();
    RCPtr<test::DirectFileWriter> file = new test::DirectFileWriter(folder);
    ASSERT_TRUE(logger->AddWriter(file));
    Configure(logger->CreateWriter(LOG_WRITER_SOCKET));
    ASSERT_TRUE(logger->Start());
    for (int startUp = 0; startUp < 4; ++startUp)
        receiver.Take();
    LogWriteTo(logger, "F()", LOG_LEVEL_INFO, "text");
    EXPECT_THAT(receiver.Take(),
                MatchesRegex("....-..-.. ..:..:..\\.... <[0-9A-F]+> \\[[0-9A-F]+\\] I F\\(\\): text\n"));
    unlink((folder + file->FileName()).c_str());
}

TEST_F(Syslog, AWriterOfItsOwnHasNoApplication)
{
    RCPtr<SocketWriter> writer = new SocketWriter;
    Configure(writer);
    ASSERT_TRUE(writer->Init());
    {
        OVMutexLock held(LoggerMutex());
        char prefix[256];
        writer->FormatPrefix(prefix, sizeof(prefix), nullptr, LOG_LEVEL_INFO);
        EXPECT_THAT(prefix, testing::EndsWith(" - - - "));
    }
    EXPECT_TRUE(writer->WriteMessage(LogMessage(LOG_LEVEL_INFO)));
    EXPECT_EQ("Failed to allocate memory for log message\n", receiver.Take());
    const std::string tooLong(100000, 'x'); // for a datagram
    EXPECT_FALSE(writer->WriteMessage(*LogMessage::Create(LOG_LEVEL_INFO, tooLong.data(), tooLong.size())));
    writer->Close();
    EXPECT_FALSE(writer->WriteMessage(LogMessage(LOG_LEVEL_INFO)));
}

} // namespace
} // namespace fodr
