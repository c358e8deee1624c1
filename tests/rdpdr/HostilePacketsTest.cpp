#include "ManagerFixture.h"
#include "rdpdr/ThreadPoolDataHandlerImpl.h"

#include <atomic>
#include <random>
#include <thread>

namespace fodr::test {
namespace {

class HostilePackets : public ManagerTest {
protected:
    // A good packet of every kind that a request may be of.
    std::vector<Bytes> GoodPackets(uint32_t fileId)
    {
        std::vector<Bytes> packets{
            ServerAnnounce(1),
            ServerCapability(),
            VersionExchange(6, 3),
            UserLoggedOn(),
            DeviceReply(9, 1),
            PolicyPacket(Policy{.folders = {{1, root}}, .exclude = "vid-1_pid-2"}.Block(6)),
            OpenRoot(65535, 1),
        };
        for (uint32_t major : {3u, 4u, 5u, 6u, 10u, 11u, 12u, 14u, 17u}) {
            Bytes packet = IoRequest(65535, major, 2, fileId, 1);
            packet.resize(packet.size() + 24, 1);
            packets.push_back(packet);
        }
        return packets;
    }
    // Kinds that may wait for something, which only another thread could end.
    static bool MayWait(const Bytes &packet)
    {
        Bytes head = packet;
        head.resize(56);
        auto request = LoadRecord<DR_DEVICE_IOREQUEST>(head.data() + 4);
        return request.MajorFunction == IRP_MJ_LOCK_CONTROL ||
               (request.MajorFunction == IRP_MJ_DIRECTORY_CONTROL && request.MinorFunction == 2);
    }
};

TEST_F(HostilePackets, CutAndMangledPacketsHarmNothing)
{
    LogOn(6);
    Add(Folder("a"));
    uint32_t fileId = LoadLittle<uint32_t>(Answers(OpenRoot(65535, 1)).at(0).data() + 16);
    std::minstd_rand random(1);
    for (const Bytes &good : GoodPackets(fileId)) {
        for (size_t n = 0; n <= good.size(); ++n)
            Feed(Bytes(good.begin(), good.begin() + static_cast<long>(n)));
        for (int round = 0; round < 200; ++round) {
            Bytes mangled = good;
            // The header stays, and a length stays below 16 MiB.
            for (size_t at = 4 + random() % 23, changes = 0; changes < 3; ++changes, at = 4 + random() % 23) {
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
    std::vector<std::thread> threads;
    for (int worker = 0; worker < 2; ++worker) {
        threads.emplace_back([&, worker] {
            for (uint32_t i = 0; i < 60; ++i) {
                const std::string &folder = folders[(i + static_cast<uint32_t>(worker)) % 3];
                manager.AddSharedFolder(folder, "c", false, 0, "");
                manager.RemoveSharedFolder(folder, "", "c");
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop) {
            manager.OnDeviceUnavailable('D');
            manager.OnDeviceAvailable('D');
        }
    });
    manager.AddSharedFolder("D:\\", "c", false, 0, "");
    for (uint32_t i = 0; i < 100; ++i) {
        for (const Bytes &packet :
             {OpenRoot(65535 + i, i), DeviceReply(65535 + i, i & 1), VersionExchange(6, i & 3),
              PolicyPacket(
                  Policy{.folders = {{0, folders[i % 3]}}, .exclude = "vid-0781_pid-5567"}.Block(6))}) {
            RdpdrStream *stream = RdpdrStream::Create(packet.size());
            stream->Write(packet.data(), packet.size());
            manager.OnDataReceived(stream);
        }
    }
    threads[0].join();
    threads[1].join();
    stop = true;
    threads[2].join();
    manager.Shutdown();

    // Whatever was withdrawn had been announced.
    std::vector<uint32_t> known;
    for (const Announced &share : TakeAnnounced())
        known.push_back(share.id);
    for (uint32_t id : removed)
        EXPECT_TRUE(std::find(known.begin(), known.end(), id) != known.end()) << id;
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
