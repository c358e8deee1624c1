#include "DatagramReceiver.h"
#include "SettingsFixture.h"
#include "WholeFile.h"
#include "platform/ByteStream.h"
#include "runtime/CapturedLog.h"
#include "runtime/OVFile.h"
#include "runtime/OVSocket.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace fodr {
namespace {

using FileUtils::OVFile;
using testing::ElementsAre;

class File : public testing::Test {
protected:
    std::string Content() const { return test::ReadWholeFile(path); }

    test::SettingsFixture folder; // a folder that goes with the test
    const std::string path = folder.Folder() + "/\xC3\xA9t\xC3\xA9.log";
};

TEST_F(File, OpensWhatIsThereAndMakesNothing)
{
    CapturedLog log(LOG_LEVEL_DEBUG);
    int64_t size = -5;
    OVFile unnamed("");
    OVFile file(path);
    EXPECT_FALSE(unnamed.Open("a") || unnamed.GetSize(&size));
    EXPECT_FALSE(file.Open("w") || file.GetSize(&size) || file.Flush() || file.Write("x"));
    EXPECT_EQ(size, -5);
    OVFile directory(folder.Folder());
    EXPECT_FALSE(directory.Open("a"));
    EXPECT_THAT(CapturedLog::Lines(),
                ElementsAre("D FileUtils::OVFile::Open(): The abolute path of the file is not set.\n",
                            "D FileUtils::OVFile::Open(): " + path + " file does not exist.\n",
                            "D FileUtils::OVFile::Open(): Opening the file failed: " + folder.Folder()));
    EXPECT_FALSE(std::ifstream(path).is_open());
}

TEST_F(File, AppendsSideBySideWithOthersAndTellsItsPosition)
{
    std::ofstream(path) << "12345\n";
    int64_t size = 0;
    OVFile file(path);
    EXPECT_TRUE(file.GetSize(&size) && file.GetSize(nullptr));
    EXPECT_EQ(size, 6);
    ASSERT_TRUE(file.Open("a"));
    {
        OVFile other(path);
        EXPECT_TRUE(other.Open("a") && other.Write("%s other\n"));
    } // its end writes and closes
    EXPECT_TRUE(file.Write("mine\n"));
    EXPECT_TRUE(file.GetSize(&size));
    EXPECT_EQ(Content(), "12345\n%s other\n"); // buffered until
    EXPECT_TRUE(file.Flush());
    EXPECT_EQ(Content(), "12345\n%s other\nmine\n");
    EXPECT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 20);
    ASSERT_TRUE(file.Open("w")); // closes the first stream
    EXPECT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 0);
    EXPECT_TRUE(file.Write("new") && file.Close() && file.Close());
    EXPECT_FALSE(file.Write("lost") || file.IsOpen());
    EXPECT_EQ(Content(), "new");
}

using testing::ElementsAre;
using testing::IsEmpty;

bool InitUdp(OVSocket &udp)
{
    return udp.Init(platform::kSocketDatagram, platform::kProtocolUdp);
}

TEST(Socket, SendsEachTextAsOneDatagram)
{
    CapturedLog log(LOG_LEVEL_DEBUG);
    const test::DatagramReceiver receiver;
    auto first = std::make_unique<OVSocket>();
    auto second = std::make_unique<OVSocket>();
    for (OVSocket *udp : {first.get(), second.get()})
        ASSERT_TRUE(InitUdp(*udp) && udp->Connect("localhost", receiver.Port()));
    EXPECT_EQ(first->SendAll("line one\n", 9), 9);
    EXPECT_EQ(first->SendAll("x", 0), 0); // not even an empty datagram
    EXPECT_EQ(first->SendAll("x", -1), 0);
    first.reset();
    EXPECT_EQ(second->SendAll("two", 3), 3); // lives on when the library's one user has gone
    EXPECT_EQ(receiver.Take(), "line one\n");
    EXPECT_EQ(receiver.Take(), "two");
    EXPECT_THAT(CapturedLog::Lines(), IsEmpty());

    EXPECT_TRUE(InitUdp(*second));
    EXPECT_THAT(CapturedLog::Lines(), ElementsAre("D OVSocket::Init(): OVSocket is already initialized.\n"));
    EXPECT_TRUE(second->Connect("127.0.0.1", receiver.Port()));
}

TEST(Socket, ADatagramIsSentAlsoAfterOneThatWasRefused)
{
    CapturedLog log(LOG_LEVEL_DEBUG);
    auto receiver = std::make_unique<test::DatagramReceiver>();
    OVSocket udp;
    ASSERT_TRUE(InitUdp(udp) && udp.Connect("127.0.0.1", receiver->Port()));
    const uint16_t port = receiver->Port();
    receiver.reset();
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(udp.SendAll("lost", 4), 4);
    receiver = std::make_unique<test::DatagramReceiver>(port);
    EXPECT_EQ(udp.SendAll("first", 5), 5);
    EXPECT_EQ(receiver->Take(), "first");
    EXPECT_THAT(CapturedLog::Lines(), IsEmpty());
}

TEST(Socket, SaysWhatFailed)
{
    CapturedLog log(LOG_LEVEL_DEBUG);
    {
        OVSocket none;
        EXPECT_FALSE(none.Init(platform::kSocketStream, platform::kProtocolUdp));
        EXPECT_FALSE(none.Connect("127.0.0.1", 9));
        EXPECT_LT(none.SendAll("x", 1), 0);
        EXPECT_FALSE(none.Connect("no..name", 514));
    }
    EXPECT_THAT(CapturedLog::Lines(), ElementsAre("E OVSocket::Init(): Socket creation failed.\n",
                                                  "E OVSocket::Connect(): Connect failed.\n",
                                                  "E OVSocket::SendAll(): SendAll() failed.\n",
                                                  "E OVSocket::Connect(): Failed to resolve name.\n",
                                                  "E OVSocket::~OVSocket(): Close socket error.\n"));
}

TEST(Socket, ALogThatMakesASocketItselfHoldsNobodyUp)
{
    const CapturedLog restored(LOG_LEVEL_ERROR);
    SetLogHandler([](const char *, int32_t, const char *, va_list) {
        std::thread([] {
            OVSocket other;
            EXPECT_TRUE(InitUdp(other));
        }).join();
    });
    OVSocket none;
    EXPECT_FALSE(none.Init(platform::kSocketStream, platform::kProtocolUdp));
}

} // namespace
} // namespace fodr
