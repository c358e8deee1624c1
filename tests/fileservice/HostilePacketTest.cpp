// Packets that lie: no byte outside of them is read, nothing is done with half a payload, nothing crashes.
#include "fileservice/Share.h"

#include <random>

namespace fodr::test {
namespace {

using namespace nt;

// Serves the packet; nothing that blocks, nothing that asks for gigabytes of output.
void Feed(Share &share, Bytes packet, const std::string &what)
{
    size_t answers = share.Serve(packet) ? 1 : 0;
    EXPECT_EQ(share.channel.Untaken(), answers) << what << " " << packet.size();
    packet.resize(std::max(packet.size(), kMinRequestSize)); // what isn't there was read as zeros
    Completion answer = share.channel.Take(LoadLittle<uint32_t>(packet.data() + 12));
    EXPECT_GE(answer.Size(), kMinCompletionSize);
    ASSERT_EQ(share.channel.Untaken(), 0u) << what << " " << packet.size();
}

bool IsRequest(const Bytes &example)
{
    return example.size() >= kMinRequestSize && example[2] == 0x52 && example[3] == 0x49;
}

TEST(HostilePacket, EveryPrefixOfEveryRequestIsServedWithinItsBytes)
{
    Share share;
    for (const auto &[heading, example] : WireExamples()) {
        share.Put("a.txt", "contents"); // an earlier request may have renamed it
        if (!IsRequest(example) || heading == "Notify change directory")
            continue;
        File file = share.Create(heading == "Query directory" ? u"\\" : u"\\a.txt");
        ASSERT_NE(file.Id(), 0u);
        Bytes packet = example;
        StoreLittle(packet.data() + 8, file.Id());
        for (auto end = packet.begin(); end != packet.end(); ++end)
            Feed(share, Bytes(packet.begin(), end), heading);
        Feed(share, packet, heading);
    }
}

// Major, minor and body are damaged; the ids are good, so that the handlers are reached. Reproducible.
TEST(HostilePacket, DamagedRequestsAreServedWithinTheirBytes)
{
    std::mt19937 random(20);
    Share share;
    std::vector<Bytes> requests;
    for (const auto &[heading, example] : WireExamples()) {
        if (IsRequest(example))
            requests.push_back(example);
    }
    ASSERT_GE(requests.size(), 9u);
    for (int round = 0; round < 4000; ++round) {
        if (round % 64 == 0) {
            share.device->CloseAllFiles();
            share.device->SetAvailable(true);
            share.Put("a.txt", "contents");
        }
        Bytes packet = requests[random() % requests.size()];
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
        Feed(share, packet, "round " + std::to_string(round));
    }
}

} // namespace
} // namespace fodr::test
