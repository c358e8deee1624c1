#include "ManagerFixture.h"
#include "rdpdr/ThreadPoolDataHandlerImpl.h"

#include <atomic>
#include <random>
#include <set>
#include <thread>

namespace fodr::test {
namespace {

using HostilePackets = ManagerTest;

// Of a kind that may wait for something, which only another thread could end.
bool MayWait(Bytes packet)
{
    packet.resize(56);
    auto request = LoadRecord<DR_DEVICE_IOREQUEST>(packet.data() + 4);
    return request.MajorFunction == IRP_MJ_LOCK_CONTROL ||
           (request.MajorFunction == IRP_MJ_DIRECTORY_CONTROL && request.MinorFunction == 2);
}

TEST_F(HostilePackets, CutAndMangledPacketsHarmNothing)
{
    LogOn(6);
    Add(Folder("a"));
    const uint32_t fileId = LoadLittle<uint32_t>(Answers(OpenRoot(65535)).at(0).data() + 16);
    // One of every kind.
    std::vector<Bytes> packets{
        ServerAnnounce(1),
        PacketOf(DR_CORE_CAPABILITY_REQ{}),
        VersionExchange(6, 3),
        UserLoggedOn(),
        DeviceReply(9, 1),
        PolicyPacket(Policy{.folders = {{1, root}}, .exclude = "vid-1_pid-2"}.Block(6)),
        OpenRoot(65535),
    };
    for (uint32_t major : {3u, 4u, 5u, 6u, 10u, 11u, 12u, 14u, 17u})
        packets.push_back(PacketOf(DR_DEVICE_IOREQUEST{65535, fileId, 2, major, 1, {}}, Bytes(24, 1)));
    std::minstd_rand random(1);
    for (const Bytes &good : packets) {
        for (size_t n = 0; n <= good.size(); ++n)
            Feed(Cut(good, n));
        for (int round = 0; round < 200; ++round) {
            Bytes mangled = good;
            for (int change = 0; change < 3; ++change) {
                // The header stays, and a length stays below 16 MiB.
                const size_t at = 4 + random() % 23;
                if (at < mangled.size())
                    mangled[at] = static_cast<uint8_t>(random() >> 9);
            }
            if (!MayWait(mangled))
                Feed(mangled);
        }
    }
    LogOn(6); // and it still works
    EXPECT_EQ(Answers(ServerAnnounce(5)).size(), 2u);
    EXPECT_EQ(Add(Folder("b")), Strings{});
}

TEST_F(HostilePackets, SharesComeAndGoWhilePacketsAreServed)
{
    UseDrives("D=" + Folder("d"));
    LogOn(6);
    const std::string folders[] = {Folder("a"), Folder("b"), Folder("c")};
    std::atomic<bool> stop{false};
    std::thread drives([&] {
        while (!stop) {
            manager.OnDeviceUnavailable('D');
            manager.OnDeviceAvailable('D');
        }
    });
    std::vector<std::thread> commands;
    for (uint32_t worker = 0; worker < 2; ++worker) {
        commands.emplace_back([&, worker] {
            for (uint32_t i = 0; i < 60; ++i) {
                const std::string &folder = folders[(i + worker) % 3];
                manager.AddSharedFolder(folder, "c", false, 0, "");
                manager.RemoveSharedFolder(folder, "", "c");
            }
        });
    }
    manager.AddSharedFolder("D:\\", "c", false, 0, "");
    for (uint32_t i = 0; i < 100; ++i) {
        const Policy policy{.folders = {{0, folders[i % 3]}}, .exclude = "vid-0781_pid-5567"};
        Receive({OpenRoot(65535 + i), DeviceReply(65535 + i, i & 1), VersionExchange(6, i & 3),
                 PolicyPacket(policy.Block(6))});
    }
    for (std::thread &thread : commands)
        thread.join();
    stop = true;
    drives.join();
    manager.Shutdown();

    // Whatever was withdrawn is announced; which of both comes first is open.
    const Strings shares = TakeShares();
    std::set<std::string> numbers;
    for (const std::string &share : shares)
        numbers.insert(share.substr(0, share.find(' ')));
    for (const std::string &share : shares)
        EXPECT_TRUE(share[0] != '-' || numbers.contains(share.substr(1))) << share;
}

TEST(ThreadPoolDataHandler, RunsEverythingBeforeItIsGone)
{
    std::atomic<int> ran{0};
    {
        ThreadPoolDataHandlerImpl handler(2);
        for (int i = 0; i < 1000; ++i)
            EXPECT_TRUE(
                handler.SubmitTask([](void *count) { ++*static_cast<std::atomic<int> *>(count); }, &ran));
    }
    EXPECT_EQ(ran, 1000);
}

} // namespace
} // namespace fodr::test
