#include "Mailbox.h"
#include "ManagerFixture.h"
#include "fileservice/IFileSystem.h"
#include "platform/TaskPool.h"
#include "rdpdr/DataHandler.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <new>
#include <random>
#include <set>
#include <thread>

namespace fodr::test {
namespace {

using HostilePackets = ManagerTest;

bool IsRequest(const Bytes &packet)
{
    return packet.size() > 4 && LoadLittle<uint16_t>(packet.data() + 2) == PAKID_CORE_DEVICE_IOREQUEST;
}

// Nothing that only another thread could end, and no gigabytes of output: they are granted, but a sanitizer
// is slow to hand them out.
bool MadeHarmless(Bytes &packet)
{
    Bytes whole = packet;
    whole.resize(std::max<size_t>(packet.size(), 56)); // what isn't there is read as zeros
    const auto request = LoadRecord<DR_DEVICE_IOREQUEST>(whole.data() + 4);
    const bool asksForRoom =
        request.MajorFunction == IRP_MJ_READ || request.MajorFunction == IRP_MJ_DEVICE_CONTROL;
    if (asksForRoom && packet.size() > 27)
        packet[26] = packet[27] = 0;
    return !(request.MajorFunction == IRP_MJ_LOCK_CONTROL && (whole[28] & kLockFailImmediately) == 0) &&
           !(request.MajorFunction == IRP_MJ_DIRECTORY_CONTROL &&
             request.MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY);
}

bool IsKnownMajor(const Bytes &packet)
{
    const Bytes known{0, 2, 3, 4, 5, 6, 10, 11, 12, 14, 17};
    return packet.size() < 20 || (std::ranges::find(known, packet[16]) != known.end() && packet[17] == 0 &&
                                  packet[18] == 0 && packet[19] == 0);
}

Bytes Mangled(Bytes packet, size_t from, std::minstd_rand &random)
{
    for (unsigned changes = 1 + random() % 4; changes > 0 && packet.size() > from; --changes)
        packet[from + random() % (packet.size() - from)] = static_cast<uint8_t>(random() >> 9);
    return packet;
}

TEST_F(HostilePackets, CutAndMangledPacketsHarmNothing)
{
    LogOn(6);
    const std::string folder = Folder("a");
    Add(folder);
    // One completion for each request, as long as its like; an unknown major may be dropped.
    const auto feed = [&](Bytes packet) {
        if (IsRequest(packet) && !MadeHarmless(packet))
            return;
        const std::vector<Bytes> answers = Answers(packet);
        if (!IsRequest(packet) || (answers.empty() && !IsKnownMajor(packet)))
            return;
        ASSERT_EQ(answers.size(), 1u) << packet.size();
        EXPECT_GE(answers[0].size(), kMinCompletionSize) << packet.size();
    };
    const auto openFile = [&](bool isFolder) {
        Bytes create = Open(65535, isFolder ? u"\\" : u"\\a.txt", nt::FILE_OPEN, 0);
        StoreLittle(create.data() + 24, nt::GENERIC_READ | nt::GENERIC_WRITE);
        return LoadLittle<uint32_t>(Answers(create).at(0).data() + 16);
    };
    const Bytes block = Policy{.folders = {{1, root}, {0, "*all"}, {0, "C"}},
                               .exclude = "vid-1_pid-2;vid-abcd_pid-****",
                               .include = "vid-1234_pid-5678"}
                            .Block(6);
    std::vector<Bytes> packets{ServerAnnounce(1),     PacketOf(DR_CORE_CAPABILITY_REQ{}),
                               VersionExchange(6, 3), UserLoggedOn(),
                               DeviceReply(9, 1),     PolicyPacket(block)};
    for (const auto &[heading, example] : WireExamples()) {
        if (IsRequest(example))
            packets.push_back(example);
    }
    ASSERT_GE(packets.size(), 17u);
    std::minstd_rand random(1);
    for (const Bytes &good : packets) {
        std::ofstream(folder + "/a.txt") << "contents"; // an earlier request may have renamed it
        Bytes packet = good;
        if (IsRequest(good))
            StoreLittle(packet.data() + 8, openFile(false));
        for (size_t n = 0; n <= packet.size(); ++n)
            feed(Cut(packet, n));
        for (int round = 0; round < 300; ++round) {
            // With good numbers the handlers are reached.
            const bool reachesHandlers = IsRequest(good) && round % 4 != 0;
            if (reachesHandlers) {
                std::ofstream(folder + "/a.txt") << "contents";
                StoreLittle(packet.data() + 8, openFile(round % 3 == 0));
            }
            feed(Mangled(packet, reachesHandlers ? 16 : 4, random));
            if (reachesHandlers)
                Feed(PacketOf(DR_DEVICE_IOREQUEST{
                    65535, LoadLittle<uint32_t>(packet.data() + 8), 2, IRP_MJ_CLOSE, 0, {}}));
        }
    }
    // A policy in the form of each version.
    for (const uint16_t version : {uint16_t{0}, uint16_t{1}, uint16_t{4}, uint16_t{5}, uint16_t{6}}) {
        auto fresh = Fresh({VersionExchange(version)});
        for (size_t n = 0; n <= block.size(); ++n) {
            for (size_t length : {n, block.size(), size_t{0xFFFFFFFF}})
                FeedTo(*fresh, PolicyPacket(Cut(block, n), static_cast<uint32_t>(length)));
        }
        for (int round = 0; round < 1000; ++round) {
            FeedTo(*fresh, PolicyPacket(Mangled(block, 0, random)));
            if (round % 20 == 0)
                AddTo(*fresh, folder, "", 0, "c");
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

Bytes WatchOf(uint32_t fileId, uint32_t completionId, size_t padding = 0)
{
    DR_DEVICE_IOREQUEST request{
        65535, fileId, completionId, IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY, {}};
    request.SetBody(DR_DRIVE_NOTIFY_CHANGE_DIRECTORY_REQ{.WatchTree = 0, .CompletionFilter = 1});
    return PacketOf(request, Bytes(padding, 1));
}

// What is behind such a request doesn't keep the others out either: all together would be far above what may
// be held.
TEST_F(HostilePackets, WithAsManyNotificationsAsMayWaitOthersAreRefusedAndReadsAnswered)
{
    constexpr uint32_t kMost = platform::TaskPool::kMostWaiting;
    LogOn(6);
    Add(Folder("a"));
    const uint32_t fileId = LoadLittle<uint32_t>(Answers(OpenRoot(65535)).at(0).data() + 16);
    for (uint32_t n = 0; n < kMost + 5; ++n)
        Receive({WatchOf(fileId, 1000 + n, 100000)});
    for (const Bytes &answer : channel.TakePackets(5))
        EXPECT_EQ(StatusOf(answer), static_cast<uint32_t>(nt::STATUS_INSUFFICIENT_RESOURCES));
    Receive({OpenRoot(65535)});
    EXPECT_EQ(StatusOf(channel.TakePackets(1).at(0)), 0u);
    // The close ends them all.
    Receive({PacketOf(DR_DEVICE_IOREQUEST{65535, fileId, 2, IRP_MJ_CLOSE, 0, {}})});
    EXPECT_EQ(channel.TakePackets(kMost + 1).size(), kMost + 1);
    Receive({OpenRoot(65535)});
    const uint32_t again = LoadLittle<uint32_t>(channel.TakePackets(1).at(0).data() + 16);
    Receive({WatchOf(again, 3)});
    manager.Shutdown();
}

// Lets no answer out while it is shut, and has no memory for one then.
class DeafChannel : public IRdpdrChannel {
public:
    bool NotifyODPObserver(const char *, const char *) override { return true; }
    bool WriteChannel(RdpdrStream *) override
    {
        isOpen.wait(false);
        throw std::bad_alloc();
    }
    void Open()
    {
        isOpen = true;
        isOpen.notify_all();
    }

private:
    std::atomic<bool> isOpen{false};
};

TEST(PacketBudget, AConnectionIsReadOnlyAsFarAsItsRequestsAreServed)
{
    constexpr size_t kSize = 8u << 20; // of a packet; as many fit as there is room for with what they cost
    constexpr size_t kFit = PacketBudget::kMostBytes / (kSize + PacketBudget::kCostOfAny);
    DeafChannel channel;
    RdpdrChannelManager manager;
    manager.Initialize(&channel, nullptr);
    std::atomic<size_t> taken{0};
    std::thread connection([&] {
        for (; taken < kFit + 3; ++taken) {
            RdpdrStream *stream = RdpdrStream::Create(kSize);
            const Bytes announce = ServerAnnounce(1);
            stream->Write(announce.data(), announce.size());
            EXPECT_TRUE(manager.OnDataReceived(stream));
        }
    });
    while (taken < kFit)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(taken, kFit);
    channel.Open();
    connection.join();
    manager.Shutdown();
}

TEST(PacketBudget, APacketCostsItselfAndItsAnswerAndOneAboveAllHasRoomAlone)
{
    const auto costOf = [](uint32_t major, uint32_t minor, const auto &body, size_t padding) {
        DR_DEVICE_IOREQUEST request{65535, 1, 1, major, minor, {}};
        request.SetBody(body);
        Bytes packet = PacketOf(request, Bytes(padding, 0xFF));
        RdpdrStream stream(packet.data(), static_cast<int32_t>(packet.size()));
        return PacketBudget::CostOf(stream) - packet.size() - PacketBudget::kCostOfAny;
    };
    EXPECT_EQ(costOf(IRP_MJ_READ, 0, DR_READ_REQ{100, 0}, 0), 200u);
    EXPECT_EQ(costOf(IRP_MJ_READ, 0, DR_READ_REQ{0xFFFFFFFF, 0}, 7), 2 * kLongestRead);
    EXPECT_EQ(costOf(IRP_MJ_WRITE, 0, DR_WRITE_REQ{0xFFFFFFFF, 0}, 100), 0u);
    EXPECT_EQ(costOf(IRP_MJ_DEVICE_CONTROL, 0, DR_CONTROL_REQ{0xFFFFFFFF, 0, 0}, 0),
              2 * kLongestControlOutput);
    EXPECT_EQ(costOf(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY, DR_READ_REQ{}, 0), 2 * kListingAnswer);

    PacketBudget budget;
    budget.Take(PacketBudget::kMostBytes + 1);
    std::atomic<bool> isFree{false};
    Signal begun;
    std::thread other([&] {
        begun.Set();
        budget.Take(PacketBudget::kMostBytes + 1);
        EXPECT_TRUE(isFree);
    });
    begun.Wait();
    std::this_thread::yield();
    isFree = true;
    budget.GiveBack(PacketBudget::kMostBytes + 1);
    other.join();
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
