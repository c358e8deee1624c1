#include "transport/FrameConnection.h"

#include "AtOnce.h"
#include "Mailbox.h"
#include "transport/FrameCodec.h"
#include "transport/FrameRecorder.h"
#include "transport/StreamKinds.h"

#include <functional>
#include <gtest/gtest.h>
#include <map>

namespace fodr::test {
namespace {

using namespace transport;
using Bytes = std::vector<std::byte>;

// One end: the messages that it hears go to a function of the test, and all else is lines.
class End final : public FrameRecorder {
public:
    explicit End(std::unique_ptr<ByteStream> stream) : connection(std::move(stream), this) {}

    void OnMessage(const Message &message) override
    {
        if (onMessage)
            onMessage(message);
    }
    void Hear(const std::string &line) override { heard.Put(line); }

    std::function<void(const Message &)> onMessage;
    Mailbox<std::string> heard;
    FrameConnection connection;
};

class Connected : public testing::TestWithParam<StreamKind> {
protected:
    void SetUp() override
    {
        auto [first, second] = MakeStreams(GetParam());
        a = std::make_unique<End>(std::move(first));
        b = std::make_unique<End>(std::move(second));
    }
    void Start()
    {
        a->connection.Start();
        b->connection.Start();
    }
    std::unique_ptr<End> a, b;
};

TEST_P(Connected, ThreadsOfBothEndsFloodEachOtherAndEveryFrameArrivesInItsOrder)
{
    // Sizes from joined frames to ones far larger than any socket buffer.
    constexpr uint32_t kThreads = 4;
    constexpr uint32_t kRounds = 60;
    const size_t sizes[] = {0, 1, 100, 20000, 1 << 20, 3 << 20};
    const Bytes payload(3 << 20, std::byte{0x5A});
    struct Count {
        std::map<uint32_t, uint32_t> next; // by sending thread
        uint32_t total = 0;
        bool inOrder = true;
        Signal all;
    } counts[2];
    End *ends[] = {a.get(), b.get()};
    for (int i = 0; i < 2; ++i) {
        ends[i]->onMessage = [&, i](const Message &message) {
            const auto block = message.Parameters()[0].block;
            counts[i].inOrder &= counts[i].next[message.object]++ == message.requestId &&
                                 block.size() == sizes[message.requestId % std::size(sizes)] &&
                                 (block.empty() || block.back() == std::byte{0x5A});
            if (++counts[i].total == kThreads * kRounds)
                counts[i].all.Set();
        };
    }
    Start();
    AtOnce(2 * kThreads, [&](int sender) {
        for (uint32_t round = 0; round < kRounds; ++round) {
            const auto block = platform::ByteView(payload).first(sizes[round % std::size(sizes)]);
            EXPECT_TRUE(ends[sender % 2]->connection.SendPost(static_cast<uint32_t>(sender), round, block));
        }
    });
    for (Count &count : counts) {
        count.all.Wait();
        EXPECT_TRUE(count.inOrder);
    }
}

TEST_P(Connected, AReceiverThatAnswersEverythingDoesNotBlockAPeerThatOnlySends)
{
    const Bytes payload(200000);
    constexpr uint32_t kCount = 100; // 20 MB each way before anything is read here
    Signal all;
    uint32_t answers = 0;
    b->onMessage = [&](const Message &message) {
        EXPECT_TRUE(b->connection.SendPost(message.object, message.requestId, message.Parameters()[0].block));
    };
    a->onMessage = [&](const Message &message) {
        EXPECT_EQ(message.requestId, answers);
        if (++answers == kCount)
            all.Set();
    };
    b->connection.Start(); // a doesn't read yet
    for (uint32_t i = 0; i < kCount; ++i)
        ASSERT_TRUE(a->connection.SendPost(1, i, payload));
    a->connection.Start();
    all.Wait();
}

TEST_P(Connected, TheLastWordsArriveBeforeTheEnd)
{
    Start();
    for (uint32_t i = 0; i < 100; ++i)
        a->connection.SendPost(1, i, {});
    EXPECT_TRUE(a->connection.Send(Goodbye{"for now"}));
    EXPECT_TRUE(a->connection.Flush(60000));
    a->connection.Close("first reason");
    a->connection.Close("second reason");
    EXPECT_EQ(a->heard.Take(), "closed: first reason");
    EXPECT_EQ(b->heard.Take(), "goodbye for now");
    EXPECT_EQ(b->heard.Take(), "closed: the peer closed the connection");
    EXPECT_FALSE(a->connection.SendPost(1, 1, {}));
    EXPECT_FALSE(b->connection.SendPost(1, 1, {}));
}

TEST_P(Connected, ClosingFreesSendersThatWait)
{
    // Nobody reads at the other end.
    std::vector<std::thread> threads;
    std::atomic<int> failed{0};
    const Bytes payload(8 << 20);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (a->connection.SendPost(1, 1, payload)) {
            }
            ++failed;
        });
    }
    EXPECT_FALSE(a->connection.Flush(1) && failed == 4);
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] { a->connection.Close("x"); });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(failed, 4);
}

TEST_P(Connected, APeerThatTakesNothingIsGivenUp)
{
    a->connection.SetWriteTimeout(20);
    a->connection.Start();
    const Bytes payload(8 << 20);
    while (a->connection.SendPost(1, 1, payload)) {
    }
    EXPECT_EQ(a->heard.Take(), "closed: the peer doesn't take what is sent");
}

TEST_P(Connected, ASilentPeerIsGivenUpAndALivingOneIsNot)
{
    // b answers pings; its own end asks for nothing.
    a->connection.SetKeepAlive({1, 60000});
    Start();
    EXPECT_EQ(b->heard.Take(), "ping");
    EXPECT_EQ(a->heard.Take(), "pong");

    auto [first, second] = MakeStreams(GetParam());
    End alone(std::move(first));
    alone.connection.SetKeepAlive({1, 20});
    alone.connection.Start();
    EXPECT_EQ(alone.heard.Take(), "closed: the peer doesn't answer");
    // It did ask.
    Bytes header(kFrameHeaderSize);
    ASSERT_EQ(second->Read(header), static_cast<ptrdiff_t>(kFrameHeaderSize));
    EXPECT_EQ(header, EncodeFrame(Ping{}));
}

INSTANTIATE_TEST_SUITE_P(Kinds, Connected, kAllStreamKinds);

TEST(FrameConnection, APeerThatLiesIsCutOffWithOneReason)
{
    Bytes bad = EncodeFrame(ObjectState{1, 2});
    bad.insert(bad.end(), 8, std::byte{0xFF});
    auto [mine, theirs] = platform::MakeStreamPair();
    End end(std::move(mine));
    end.connection.Start();
    ASSERT_TRUE(Write(theirs.get(), bad));
    EXPECT_EQ(end.heard.Take(), "state 1 2");
    EXPECT_EQ(end.heard.Take(), "closed: the peer broke the protocol: a frame of unknown type");
}

TEST(FrameConnection, APeerThatSendsAndNeverReadsIsCutOff)
{
    auto [mine, theirs] = platform::MakeStreamPair();
    End end(std::move(mine));
    const Bytes answer(4 << 20);
    end.onMessage = [&](const Message &) { end.connection.SendPost(1, 1, answer); };
    end.connection.Start();
    Message empty{};
    const MessageBlocks question(empty);
    while (theirs->Write(question.Blocks())) {
    }
    EXPECT_EQ(end.heard.Take(), "closed: the peer sends and doesn't read");
}

} // namespace
} // namespace fodr::test
