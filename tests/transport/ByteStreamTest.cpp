#include "transport/StreamKinds.h"

#include <chrono>
#include <fstream>
#include <random>
#include <vector>

namespace fodr::test {
namespace {

using Bytes = std::vector<std::byte>;

Bytes RandomBytes(size_t size)
{
    std::mt19937 random(static_cast<uint32_t>(size));
    Bytes bytes(size);
    for (std::byte &byte : bytes)
        byte = static_cast<std::byte>(random());
    return bytes;
}

// So many bytes, or those before the end.
Bytes Read(ByteStream *stream, size_t size)
{
    Bytes all;
    Bytes buffer(100000);
    for (ptrdiff_t got; all.size() < size && (got = stream->Read(buffer)) > 0;)
        all.insert(all.end(), buffer.begin(), buffer.begin() + got);
    return all;
}

class EveryStream : public testing::TestWithParam<StreamKind> {
protected:
    void SetUp() override
    {
        std::tie(a, b) = MakeStreams(GetParam());
        ASSERT_TRUE(a && b);
    }
    std::unique_ptr<ByteStream> a, b;
};

TEST_P(EveryStream, CarriesManyBlocksBothWaysInOrder)
{
    const Bytes large = RandomBytes(5 << 20);
    std::vector<platform::ByteView> blocks;
    for (size_t at = 0; at < large.size(); at += 40000)
        blocks.push_back(platform::ByteView(large).subspan(at, std::min<size_t>(40000, large.size() - at)));
    blocks.insert(blocks.begin() + 3, platform::ByteView());
    for (int way = 0; way < 2; ++way, a.swap(b)) {
        bool written = false;
        std::thread writer([&] { written = a->Write(blocks); });
        EXPECT_EQ(Read(b.get(), large.size()), large);
        writer.join();
        EXPECT_TRUE(written);
    }
}

TEST_P(EveryStream, WaitsNoLongerThanAsked)
{
    Bytes buffer(10);
    EXPECT_EQ(a->Read(buffer, 1), ByteStream::kTimedOut);
    ASSERT_TRUE(Write(b.get(), RandomBytes(4)));
    EXPECT_EQ(a->Read(buffer), 4);
    EXPECT_EQ(a->Read(buffer, 1), ByteStream::kTimedOut);
}

TEST_P(EveryStream, ShutdownEndsAWaitingReaderAndAWaitingWriter)
{
    ptrdiff_t got = 1;
    bool written = true;
    Bytes buffer(10);
    std::thread reader([&] { got = a->Read(buffer); });
    std::thread writer([&] { written = Write(a.get(), Bytes(20 << 20)); });
    a->Shutdown();
    a->Shutdown();
    reader.join();
    writer.join();
    EXPECT_LE(got, 0);
    EXPECT_FALSE(written);
    EXPECT_LE(a->Read(buffer), 0);
}

TEST_P(EveryStream, AWriteEndsWhenNothingIsTakenForTooLongButNotAtASlowReader)
{
    a->SetWriteTimeout(200);
    const Bytes large(3 << 20);
    const auto begun = std::chrono::steady_clock::now();
    std::thread reader([&] { // slower than the time that a write may stand still
        Bytes buffer(64 << 10);
        for (size_t got = 0; got < large.size();) {
            const ptrdiff_t count = b->Read(buffer, 10000);
            ASSERT_GT(count, 0);
            got += static_cast<size_t>(count);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    EXPECT_TRUE(Write(a.get(), large));
    reader.join();
    EXPECT_GT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(400));
    EXPECT_FALSE(a->WriteTimedOut());
    while (Write(a.get(), large)) {
    }
    EXPECT_TRUE(a->WriteTimedOut());
}

TEST_P(EveryStream, WhatWasWrittenBeforeTheEndArrives)
{
    const Bytes word = RandomBytes(1000);
    ASSERT_TRUE(Write(a.get(), word));
    a->Shutdown();
    a.reset();
    EXPECT_EQ(Read(b.get(), word.size() + 1), word);
}

TEST_P(EveryStream, WritingToAPeerThatIsGoneFailsWithoutASignal)
{
    b.reset();
    const Bytes large(1 << 20);
    bool written = true;
    for (int i = 0; i < 10 && written; ++i)
        written = Write(a.get(), large);
    EXPECT_FALSE(written);
}

TEST_P(EveryStream, KnowsItsUserOnLocalSocketsAndWithinThisMachine)
{
    const bool local = GetParam() != StreamKind::Pipes;
    // Over TCP who listens asks; Wine doesn't know the other direction.
    if (GetParam() != StreamKind::Tcp) {
        EXPECT_EQ(a->PeerIsThisUser(), local);
    }
    EXPECT_EQ(b->PeerIsThisUser(), local);
    if (GetParam() == StreamKind::Tcp) {
        a.reset();
        EXPECT_FALSE(b->PeerIsThisUser()) << "nobody's any more, so not to be taken for root's";
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, EveryStream, kAllStreamKinds);

class LocalListener : public testing::Test {
protected:
    const std::string path =
        testing::TempDir() + "fodr-listen-" + std::to_string(platform::CurrentProcessId());
    std::string error;
    void TearDown() override { std::filesystem::remove(path); }
};

TEST_F(LocalListener, ReplacesOnlyWhatADeadOneLeft)
{
    auto first = platform::ListenLocal(path, &error);
    ASSERT_TRUE(first) << error;
    if (std::filesystem::path::preferred_separator == '/') { // elsewhere no mode tells who may come in
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
    }
    EXPECT_FALSE(platform::ListenLocal(path, &error));
    EXPECT_FALSE(error.empty());

    // The socket file of a process that was killed.
    std::filesystem::rename(path, path + ".kept");
    first.reset();
    std::filesystem::rename(path + ".kept", path);
    auto second = platform::ListenLocal(path, &error);
    ASSERT_TRUE(second) << error;
    EXPECT_TRUE(platform::ConnectLocal(path, &error));
    second.reset();
    EXPECT_FALSE(std::filesystem::exists(path));

    std::ofstream(path) << "something else";
    EXPECT_FALSE(platform::ListenLocal(path, &error));
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(LocalListener, EndsWaitingWhenShutDown)
{
    auto listener = platform::ListenLocal(path, &error);
    EXPECT_FALSE(listener->Accept(1));
    std::thread other([&] { listener->Shutdown(); });
    EXPECT_FALSE(listener->Accept());
    other.join();
}

TEST(Tcp, SaysWhyItCouldNotConnect)
{
    const uint16_t freePort = platform::ListenTcp("127.0.0.1", 0, nullptr)->Port();
    for (const auto &[host, port] : {std::pair("127.0.0.1", freePort), {"no.such.host.invalid", 1}}) {
        std::string error;
        EXPECT_FALSE(platform::ConnectTcp(host, port, 5000, &error));
        EXPECT_NE(error, "") << host;
    }
    EXPECT_TRUE(platform::ListenTcp("", 0, nullptr));
}

} // namespace
} // namespace fodr::test
