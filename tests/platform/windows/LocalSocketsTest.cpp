#include "platform/ByteStream.h"
#include "platform/Process.h"

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

} // namespace
} // namespace fodr::platform
