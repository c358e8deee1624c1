// Many threads in one device at once; run under ThreadSanitizer too.
#include "fileservice/Share.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace fodr::test {
namespace {

using namespace nt;

// Requests made by hand, since a Share's own counter serves one thread.
Bytes RequestOf(uint32_t fileId, uint32_t completionId, uint32_t major, const DR_READ_REQ &body,
                std::string_view payload = {})
{
    DR_DEVICE_IOREQUEST request{kDeviceId, fileId, completionId, major, 0, {}};
    request.SetBody(body);
    Bytes packet(kWireEnd<DR_DEVICE_IOREQUEST> + payload.size());
    StorePacket(request, packet.data());
    std::copy(payload.begin(), payload.end(), packet.begin() + kWireEnd<DR_DEVICE_IOREQUEST>);
    return packet;
}

TEST(ConcurrentRequests, OnOneFileEachMoveTheirOwnBytes)
{
    constexpr uint32_t kThreads = 8, kRounds = 100;
    Share share;
    File file = share.Create(u"\\a", {.disposition = FILE_CREATE});
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (uint32_t round = 0; round < kRounds; ++round) {
                uint32_t completionId = 1000 + (t * kRounds + round) * 2;
                std::string text = std::to_string(completionId);
                DR_READ_REQ where{static_cast<uint32_t>(text.size()), t * 16};
                EXPECT_EQ(share.Ask(RequestOf(file.Id(), completionId, IRP_MJ_WRITE, where, text)).Length(),
                          text.size());
                EXPECT_EQ(share.Ask(RequestOf(file.Id(), completionId + 1, IRP_MJ_READ, where)).Data(), text);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
}

// Every request is answered once, with success or as on a closed file, and the close waits for those in
// flight.
TEST(ConcurrentRequests, ThatMeetACloseAreAllAnswered)
{
    constexpr uint32_t kThreads = 6;
    Share share;
    share.Put("a", "contents");
    for (uint32_t round = 0; round < 40; ++round) {
        File file = share.Create(u"\\a");
        std::atomic<uint32_t> started{0};
        std::vector<std::thread> threads;
        for (uint32_t t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (uint32_t i = 0; i < 10; ++i) {
                    ++started;
                    uint32_t completionId = 100000 + (round * kThreads + t) * 10 + i;
                    NTSTATUS status =
                        share.Ask(RequestOf(file.Id(), completionId, IRP_MJ_READ, DR_READ_REQ{8, 0}))
                            .Status();
                    EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_INVALID_HANDLE ||
                                status == STATUS_DEVICE_REMOVED || status == STATUS_CANCELLED)
                        << std::hex << status;
                }
            });
        }
        while (started < kThreads)
            std::this_thread::yield();
        if (round % 2)
            EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
        else
            share.device->CloseAllFiles();
        for (std::thread &thread : threads)
            thread.join();
        share.device->SetAvailable(true);
        EXPECT_EQ(file.Close().Status(), STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(share.channel.Untaken(), 0u);
}

} // namespace
} // namespace fodr::test
