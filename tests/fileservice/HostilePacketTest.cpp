// Packets that lie: no byte outside of them is read, nothing is done with half a payload, nothing crashes.
#include "fileservice/Share.h"

#include <random>

namespace fodr::test {
namespace {

using namespace nt;

TEST(HostilePacket, ATruncatedPayloadIsRefusedAndNothingIsDone)
{
    Share share;
    share.Put("a", "kept");
    File file = share.Create(u"\\a");
    struct Case {
        const char *what;
        Bytes packet;
    };
    constexpr uint32_t kHuge = 0xFFFFFFFF;
    uint32_t id = file.Id();
    const Case kCases[] = {
        {"write", share.Request(id, IRP_MJ_WRITE, 0, DR_WRITE_REQ{5, 0}, "lost")},
        {"write", share.Request(id, IRP_MJ_WRITE, 0, DR_WRITE_REQ{kHuge, 0}, "lost")},
        {"set",
         share.Request(id, IRP_MJ_SET_INFORMATION, 0,
                       DR_DRIVE_SET_INFORMATION_REQ{FileEndOfFileInformation, 8}, std::string(7, '\0'))},
        {"set", share.Request(id, IRP_MJ_SET_INFORMATION, 0,
                              DR_DRIVE_SET_INFORMATION_REQ{FileDispositionInformation, kHuge}, "\1")},
        {"set volume", share.Request(id, IRP_MJ_SET_VOLUME_INFORMATION, 0,
                                     DR_DRIVE_SET_INFORMATION_REQ{FileFsLabelInformation, 5}, "1234")},
        {"control", share.Request(id, IRP_MJ_DEVICE_CONTROL, 0, DR_CONTROL_REQ{0, 16, FSCTL_SET_ZERO_DATA},
                                  std::string(15, '\0'))},
        {"control",
         share.Request(id, IRP_MJ_DEVICE_CONTROL, 0, DR_CONTROL_REQ{kHuge, kHuge, FSCTL_SET_SPARSE})},
    };
    for (const Case &test : kCases) {
        Completion answer = share.Ask(test.packet);
        EXPECT_EQ(answer.Status(), STATUS_INVALID_PARAMETER) << test.what;
        EXPECT_EQ(answer.Size(), 21u);
    }
    EXPECT_EQ(file.Close().Status(), STATUS_SUCCESS);
    EXPECT_EQ(share.Contents("a"), "kept");
}

// Serves the packet; nothing that blocks, nothing that asks for gigabytes of output.
void Feed(Share &share, Bytes packet)
{
    size_t before = share.channel.Untaken();
    bool written = share.Serve(packet);
    ASSERT_LE(share.channel.Untaken(), before + 1);
    ASSERT_EQ(share.channel.Untaken(), before + (written ? 1 : 0));
    if (written) {
        uint32_t completionId = 0;
        RdpdrStream stream(packet.data(), static_cast<int32_t>(packet.size()));
        stream.Read(&completionId, 4);
        completionId = ReadRecord<DR_DEVICE_IOREQUEST>(stream).CompletionId;
        ASSERT_GE(share.channel.Take(completionId).Size(), kMinCompletionSize);
    }
}

TEST(HostilePacket, EveryPrefixOfEveryRequestIsServedWithinItsBytes)
{
    Share share;
    for (const auto &[heading, example] : WireExamples()) {
        share.Put("a.txt", "contents"); // an earlier request may have renamed it
        bool isRequest = example.size() >= kMinRequestSize && example[2] == 0x52 && example[3] == 0x49;
        if (!isRequest || heading == "Notify change directory")
            continue;
        File file = share.Create(heading == "Query directory" ? u"\\" : u"\\a.txt");
        ASSERT_NE(file.Id(), 0u);
        Bytes packet = example;
        StoreLittle(packet.data() + 8, file.Id());
        for (size_t size = 0; size <= packet.size(); ++size) {
            SCOPED_TRACE(heading + " " + std::to_string(size));
            Feed(share, Bytes(packet.begin(), packet.begin() + static_cast<long>(size)));
        }
    }
}

// Flipped bytes of good requests, reproducibly.
TEST(HostilePacket, DamagedRequestsAreServedWithinTheirBytes)
{
    std::mt19937 random(20);
    Share share;
    share.Put("a.txt", "contents");
    std::vector<Bytes> requests;
    for (const auto &[heading, example] : WireExamples()) {
        if (example.size() >= kMinRequestSize && example[2] == 0x52 && example[3] == 0x49)
            requests.push_back(example);
    }
    ASSERT_GE(requests.size(), 9u);
    for (int round = 0; round < 4000; ++round) {
        Bytes packet = requests[random() % requests.size()];
        // Major, minor and body are damaged; the ids are good, so that the handlers are reached.
        for (int flips = 0; flips < 3; ++flips)
            packet[16 + random() % (packet.size() - 16)] = static_cast<uint8_t>(random());
        uint32_t major = LoadLittle<uint32_t>(packet.data() + 16);
        // Gigabytes of room for output are granted, but a sanitizer is slow to hand them out.
        if (major == IRP_MJ_READ || major == IRP_MJ_DEVICE_CONTROL)
            packet[26] = packet[27] = 0;
        bool waits = (major == IRP_MJ_DIRECTORY_CONTROL && packet[20] == IRP_MN_NOTIFY_CHANGE_DIRECTORY) ||
                     (major == IRP_MJ_LOCK_CONTROL && !(packet[28] & 1));
        if (waits)
            continue;
        if (major != IRP_MJ_CREATE) {
            File file =
                share.Create(round % 2 ? u"\\a.txt" : u"\\", {.access = GENERIC_READ | GENERIC_WRITE});
            StoreLittle(packet.data() + 8, file.Id());
        }
        Feed(share, packet);
        if (round % 64 == 0) {
            share.device->CloseAllFiles();
            share.device->SetAvailable(true);
            share.Put("a.txt", "contents");
        }
    }
}

} // namespace
} // namespace fodr::test
