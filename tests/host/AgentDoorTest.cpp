#include "host/AgentDoor.h"

#include "Mailbox.h"
#include "transport/FrameCodec.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace fodr::test {
namespace {

using host::AgentDoor;
using platform::ByteStream;
using Bytes = std::vector<std::byte>;

Bytes Greeting(const std::string &token, transport::Role role = transport::Role::Agent)
{
    transport::Hello hello;
    hello.role = role;
    hello.token = token;
    return EncodeFrame(hello);
}

Bytes BytesOf(std::string_view text)
{
    const auto bytes = std::as_bytes(std::span(text));
    return Bytes(bytes.begin(), bytes.end());
}

class Door : public testing::Test {
protected:
    void Open(const std::string &token, int patienceMS)
    {
        auto listener = platform::ListenTcp("127.0.0.1", 0, nullptr);
        ASSERT_TRUE(listener);
        door = std::make_unique<AgentDoor>(
            std::move(listener), token, [this](const std::string &reason) { refused.Put(reason); },
            patienceMS);
    }
    // Connects and says so much.
    ByteStream *Come(const Bytes &words)
    {
        newcomers.push_back(platform::ConnectTcp("127.0.0.1", door->Port(), 10000, nullptr));
        const platform::ByteView block = words;
        EXPECT_TRUE(newcomers.back()->Write({&block, 1}));
        return newcomers.back().get();
    }

    std::unique_ptr<AgentDoor> door;
    Mailbox<std::string> refused;
    std::vector<std::unique_ptr<ByteStream>> newcomers;
};

TEST_F(Door, LetsTheAgentInPastStrangersAndItsGreetingIsReadAgain)
{
    Open("right", 200);
    const Bytes good = Greeting("right");
    const std::string isNone = "what has connected isn't an agent";
    const struct {
        Bytes words;
        std::string reason;
    } strangers[] = {
        {BytesOf("GET / HTTP/1.1\r\n\r\n"), isNone},
        {Greeting("right", transport::Role::Host), isNone},
        {EncodeFrame(transport::ObjectState{1, 2}), isNone},
        {Greeting("wrong"), "the agent doesn't know the agreed token"},
        {Greeting(""), "the agent doesn't know the agreed token"},
        {Bytes(good.begin(), good.begin() + 3), "what has connected doesn't say that it is an agent"},
        {Bytes(good.begin(), good.end() - 1), isNone},
    };
    std::multiset<std::string> expected, heard;
    for (const auto &[words, reason] : strangers) {
        Come(words);
        expected.insert(reason);
    }
    std::unique_ptr<ByteStream> agent;
    std::thread host([&] { agent = door->Await(); });
    for (size_t n = 0; n < std::size(strangers); ++n)
        heard.insert(refused.Take());
    EXPECT_EQ(heard, expected);
    Come(good);
    host.join();
    ASSERT_TRUE(agent);
    Bytes read(good.size());
    for (size_t have = 0; have < read.size();)
        have += static_cast<size_t>(agent->Read(std::span(read).subspan(have, 1)));
    EXPECT_EQ(read, good);
    EXPECT_EQ(agent->Read(read, 1), ByteStream::kTimedOut); // and it is still connected
}

// More silent ones than are looked at, each with time enough to keep the agent out.
TEST_F(Door, SilentOnesKeepNobodyOut)
{
    Open("", 600000); // without a token this user is let in
    for (size_t n = 0; n < 2 * AgentDoor::kMostAtOnce; ++n)
        Come({});
    Come(Greeting(""));
    EXPECT_TRUE(door->Await());
    for (size_t n = 0; n <= AgentDoor::kMostAtOnce; ++n)
        refused.Take();

    std::thread host([&] { EXPECT_FALSE(door->Await()); });
    Come({});
    door->Shutdown();
    host.join();
    EXPECT_FALSE(door->Await());
}

} // namespace
} // namespace fodr::test
