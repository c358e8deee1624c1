#include "platform/ByteStream.h"
#include "platform/Process.h"
#include "platform/windows/HandleStream.h"

#include <gtest/gtest.h>
#include <thread>

namespace fodr::platform {
namespace {

TEST(LocalSockets, APeerThatLeavesBeforeItIsTakenDoesntEndTheListening)
{
    const std::string path = testing::TempDir() + "fodr-left-" + std::to_string(CurrentProcessId());
    std::string error;
    const auto listener = ListenLocal(path, &error);
    ASSERT_TRUE(listener) << error;
    for (int n = 0; n < 3; ++n) {
        std::thread client([&] {
            const std::byte word[4] = {};
            const ByteView block = word;
            auto hasty = ConnectLocal(path, nullptr);
            EXPECT_TRUE(hasty && hasty->Write({&block, 1}));
        });
        client.join();
        const auto peer = listener->Accept();
        ASSERT_TRUE(peer) << n;
        std::byte buffer[10];
        EXPECT_EQ(peer->Read(buffer), 4);
        EXPECT_LE(peer->Read(buffer), 0);
    }
    EXPECT_FALSE(listener->Accept(1));
    const auto last = ConnectLocal(path, &error);
    EXPECT_TRUE(last) << error;
    EXPECT_TRUE(listener->Accept());
    listener->Shutdown();
    EXPECT_FALSE(listener->Accept());
}

TEST(Pipes, AnEmptyWriteIsNotTheirEnd)
{
    OwnedHandle ours, theirs;
    ASSERT_TRUE(MakePipe(PipeUse::WeRead, true, &ours, &theirs));
    HandleStream stream(MakePipeEnd(std::move(ours), false), nullptr);
    std::byte buffer[10];
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(theirs.Get(), "", 0, &written, nullptr));
    EXPECT_EQ(stream.Read(buffer, 1), ByteStream::kTimedOut);
    EXPECT_TRUE(WriteFile(theirs.Get(), "", 0, &written, nullptr));
    EXPECT_TRUE(WriteFile(theirs.Get(), "word", 4, &written, nullptr));
    EXPECT_EQ(stream.Read(buffer, ByteStream::kNoTimeout), 4);
    theirs.Reset();
    EXPECT_EQ(stream.Read(buffer, ByteStream::kNoTimeout), ByteStream::kEnd);
}

} // namespace
} // namespace fodr::platform
