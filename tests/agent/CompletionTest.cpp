// What comes back: answers in any order, cut, mutated, late, repeated, or never.
#include "ScriptedPlugin.h"
#include "agent/BlockingShare.h"
#include "agent/FileFacts.h"
#include "agent/SharePackets.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <random>

namespace fodr::agent {
namespace {

bool Within(ByteSpan part, ByteSpan whole)
{
    return part.empty() ||
           (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

// The packet is a copy of just its size, so that a byte beyond it is noticed.
void ReadEveryWay(const Bytes packet)
{
    const ByteSpan bytes = packet;
    for (AnswerKind kind : {AnswerKind::Create, AnswerKind::Length, AnswerKind::Data, AnswerKind::Control,
                            AnswerKind::Status}) {
        const IoResult result = ReadCompletion(bytes, kind, 1 << 20);
        EXPECT_TRUE(Within(result.data, bytes));
        EXPECT_TRUE(Within(result.preRead, bytes));
        FileFacts facts;
        VolumeFacts volume;
        static_cast<void>(ReadPreReadFacts(result.preRead, &facts));
        static_cast<void>(ReadNetworkOpenInformation(result.data, &facts));
        static_cast<void>(ReadFullSizeInformation(result.data, &volume));
        DirectoryReader reader(result.data, FileIds::None);
        for (DirectoryReader::Entry entry; reader.Next(&entry);)
            EXPECT_TRUE(Within(entry.name, bytes));
    }
    AnnounceReader announce(bytes);
    for (RemoteDevice device; announce.Next(&device);)
        EXPECT_LE(device.name.size() + device.path.size(), bytes.size());
    RemoveReader removal(bytes);
    for (uint32_t id = 0; removal.Next(&id);) {
    }
}

Bytes MappedAnnounce()
{
    Bytes packet = WireExample("Device list announce");
    const Bytes extension = WireExample("Drive letter mapping");
    packet.insert(packet.end(), extension.begin(), extension.end());
    return packet;
}

std::vector<Bytes> GoodPackets()
{
    Bytes listing = PacketOf(DR_DEVICE_IOCOMPLETION{}, Bytes(4 + 72 + 74));
    StoreLittle<uint32_t>(&listing[kCompletionBody], 72 + 74);
    StoreLittle<uint32_t>(&listing[kCompletionData], 72);
    StoreLittle<uint32_t>(&listing[kCompletionData + 60], 2);
    StoreLittle<uint32_t>(&listing[kCompletionData + 72 + 60], 4);
    std::vector<Bytes> packets = {listing, MappedAnnounce()};
    for (const char *heading : {"Create completion", "Create completion with pre-read", "Data completion",
                                "Length completion", "Device list announce", "Device list remove"})
        packets.push_back(WireExample(heading));
    return packets;
}

TEST(Completion, NeverLeavesItsPacket)
{
    std::mt19937 random(7);
    for (const Bytes &good : GoodPackets()) {
        for (size_t size = 0; size <= good.size(); ++size)
            ReadEveryWay({good.begin(), good.begin() + static_cast<ptrdiff_t>(size)});
        for (int i = 0; i < 2000; ++i) {
            Bytes bad = good;
            for (unsigned changes = 1 + random() % 4; changes != 0; --changes)
                bad[random() % bad.size()] = static_cast<uint8_t>(random() % 3 ? random() : 0xFF);
            ReadEveryWay(bad);
        }
    }
}

TEST(Completion, IsReadByWhatWasAsked)
{
    const Bytes data = WireExample("Data completion"), created = WireExample("Create completion");
    EXPECT_EQ(ReadCompletion(created, AnswerKind::Create, 0).fileId, 0x12Cu);
    EXPECT_EQ(ReadCompletion(data, AnswerKind::Data, 5).data.size(), 5u);
    // More than was asked for, or more than is there.
    EXPECT_EQ(ReadCompletion(data, AnswerKind::Data, 4).status, STATUS_INVALID_NETWORK_RESPONSE);
    EXPECT_EQ(ReadCompletion(ByteSpan(data).first(24), AnswerKind::Data, 5).status,
              STATUS_INVALID_NETWORK_RESPONSE);
    EXPECT_EQ(ReadCompletion(ByteSpan(created).first(20), AnswerKind::Create, 0).status,
              STATUS_INVALID_NETWORK_RESPONSE);
    // Device control: the length stays 0, the size of the packet counts.
    Bytes control = data;
    StoreLittle<uint32_t>(&control[kCompletionBody], 0);
    EXPECT_EQ(ReadCompletion(control, AnswerKind::Control, 16).data.size(), 5u);
    EXPECT_EQ(ReadCompletion(ByteSpan(control).first(21), AnswerKind::Control, 0).data.size(), 0u);
    // A failure needs no body.
    Bytes failed(created.begin(), created.begin() + 16);
    StoreLittle<uint32_t>(&failed[12], 0xC0000022);
    EXPECT_EQ(ReadCompletion(failed, AnswerKind::Create, 0).status, nt::STATUS_ACCESS_DENIED);
}

TEST(PreRead, GivesTheFactsItCarries)
{
    Bytes block(8);
    const auto add = [&block](uint32_t informationClass, const Bytes &record) {
        Bytes head(12);
        StoreRecord(FODR_PRE_READ_ENTRY{5, informationClass, static_cast<uint32_t>(record.size())},
                    head.data());
        block.insert(block.end(), head.begin(), head.end());
        block.insert(block.end(), record.begin(), record.end());
        StoreRecord(FODR_PRE_READ_BLOCK{static_cast<uint32_t>(block.size()), ++block[4]}, block.data());
    };
    Bytes basic(36), standard(22);
    StoreLittle<int64_t>(&basic[16], 1234);
    StoreLittle<uint32_t>(&basic[32], 0x21);
    StoreLittle<int64_t>(&standard[8], 99);
    FileFacts facts;
    add(nt::FileBasicInformation, basic);
    EXPECT_FALSE(ReadPreReadFacts(block, &facts));
    add(nt::FileStandardInformation, standard);
    ASSERT_TRUE(ReadPreReadFacts(block, &facts));
    EXPECT_EQ(facts.lastWriteTime, 1234);
    EXPECT_EQ(facts.endOfFile, 99);
    EXPECT_TRUE(facts.IsReadOnly());
}

class InFlight : public ClientTest {
protected:
    void SetUp() override { StartWithShare(); }
};

TEST_F(InFlight, AnswersFindTheirRequestsInAnyOrder)
{
    constexpr size_t kCount = 1000;
    std::vector<std::future<OwnedResult>> outcomes;
    std::vector<Request> requests;
    for (uint32_t i = 0; i < kCount; ++i)
        outcomes.push_back(StartCall(share->Read(1u, uint64_t{i}, 4u)));
    for (uint32_t i = 0; i < kCount; ++i)
        requests.push_back(plugin->TakeRequest());
    std::shuffle(requests.begin(), requests.end(), std::mt19937(3));
    for (const Request &request : requests) {
        Bytes data(4);
        StoreLittle(data.data(), static_cast<uint32_t>(request.Offset()));
        plugin->CompleteData(request, data);
    }
    for (uint32_t i = 0; i < kCount; ++i)
        EXPECT_EQ(LoadLittle<uint32_t>(outcomes[i].get().data.data()), i);
}

TEST_F(InFlight, AMalformedAnswerFailsItsRequestAndNothingElse)
{
    auto cut = StartCall(share->Read(1u, uint64_t{0}, 4u));
    auto foreign = StartCall(share->Read(1u, uint64_t{0}, 4u));
    auto good = StartCall(share->Read(1u, uint64_t{0}, 4u));
    plugin->Complete(plugin->TakeRequest(), nt::STATUS_SUCCESS, {4, 0, 0, 0, 1});
    Request other = plugin->TakeRequest();
    other.packet[4] ^= 1; // another device
    plugin->CompleteData(other, Bytes(4));
    plugin->CompleteData(plugin->TakeRequest(), Bytes(4));
    EXPECT_EQ(cut.get().status, STATUS_INVALID_NETWORK_RESPONSE);
    EXPECT_EQ(foreign.get().status, STATUS_INVALID_NETWORK_RESPONSE);
    EXPECT_EQ(good.get().status, nt::STATUS_SUCCESS);
}

TEST_F(InFlight, ARepeatedAnswerIsNotTakenForTheNextOne)
{
    auto first = StartCall(share->Read(1u, uint64_t{0}, 4u));
    const Request request = plugin->TakeRequest();
    plugin->CompleteData(request, Bytes(4, 1));
    EXPECT_EQ(first.get().data, Bytes(4, 1));
    auto second = StartCall(share->Read(1u, uint64_t{0}, 4u));
    plugin->CompleteData(request, Bytes(4, 1));
    plugin->CompleteData(plugin->TakeRequest(), Bytes(4, 2));
    EXPECT_EQ(second.get().data, Bytes(4, 2));
}

TEST_F(InFlight, EverythingEndsWithTheShareAndTheConnection)
{
    auto created = StartCall(share->Create(RemoteShare::CreateCall{}, u"\\a"));
    auto watched = StartWatch(*share, 1u);
    const Request creating = plugin->TakeRequest(), watching = plugin->TakeRequest();
    plugin->Send(PacketOf(DR_DEVICELIST_REMOVE{.DeviceId = kDevice}));
    EXPECT_EQ(created.get().status, nt::STATUS_DEVICE_REMOVED);
    EXPECT_EQ(watched.get().status, nt::STATUS_DEVICE_REMOVED);
    EXPECT_EQ(removed.Take(), kDevice);
    // What comes all the same is closed, if it is a file.
    plugin->CompleteNumber(watching, 0x33);
    plugin->CompleteNumber(creating, 0x44);
    const Request close = plugin->TakeRequest();
    EXPECT_EQ(close.Head().MajorFunction, IRP_MJ_CLOSE);
    EXPECT_EQ(close.Head().FileId, 0x44u);

    auto cutOff = StartWatch(*share, 1u);
    plugin->TakeRequest();
    plugin->Close();
    EXPECT_EQ(cutOff.get().status, STATUS_CONNECTION_DISCONNECTED);
    EXPECT_EQ(ends.Take().first, ChannelEnd::Lost);
    EXPECT_EQ(BlockingCall(share->Close(1u)).status, STATUS_CONNECTION_DISCONNECTED);
}

TEST(RequestTable, TimeEndsWhatIsTimed)
{
    RequestTable table({});
    std::vector<nt::NTSTATUS> outcomes(3, nt::STATUS_PENDING);
    const auto add = [&](size_t which, bool timed) {
        DR_DEVICE_IOREQUEST request;
        RequestTable::Passage passage;
        EXPECT_EQ(table.Add(
                      {.timed = timed}, &request, {},
                      [&outcomes, which](const IoResult &result) { outcomes[which] = result.status; },
                      &passage),
                  nt::STATUS_PENDING);
    };
    add(0, true);
    add(1, false);
    table.Tick(2);
    add(2, true);
    table.Tick(2);
    EXPECT_EQ(outcomes[0], nt::STATUS_PENDING);
    table.Tick(2);
    EXPECT_EQ(outcomes[0], STATUS_IO_TIMEOUT);
    EXPECT_EQ(outcomes[2], nt::STATUS_PENDING);
    table.Tick(2);
    EXPECT_EQ(outcomes[2], STATUS_IO_TIMEOUT);
    EXPECT_EQ(outcomes[1], nt::STATUS_PENDING);
    EXPECT_EQ(table.InFlight(), 1u);
    table.FailAll(STATUS_CONNECTION_DISCONNECTED);
    EXPECT_EQ(outcomes[1], STATUS_CONNECTION_DISCONNECTED);
}

using Shares = ClientTest;

TEST_F(Shares, AreTakenFromTheirAnnouncement)
{
    Start({});
    plugin->BringUp();
    plugin->Send(MappedAnnounce());
    const RemoteDevice device = devices.Take();
    EXPECT_EQ(device.id, 0xFFFFu); // without the permission
    EXPECT_EQ(device.permission, 3);
    EXPECT_EQ(device.name, "documents");
    EXPECT_EQ(device.dosName, "documen");
    EXPECT_EQ(device.path, "C:\\");
    EXPECT_EQ(plugin->Take(), WireExample("Device reply"));
}

TEST_F(Shares, AreAnsweredOnceTheyCanBeUsed)
{
    acceptsShares = false;
    Start({});
    plugin->BringUp();
    plugin->Send(MappedAnnounce());
    share = std::make_shared<RemoteShare>(*client, devices.Take());
    const auto ask = [&] {
        auto opened = StartCall(share->Create(RemoteShare::CreateCall{}, u"\\"));
        plugin->CompleteNumber(plugin->TakeRequest(), 1); // and no reply before it
        EXPECT_FALSE(opened.get().Failed());
    };
    ask();
    client->Accept(kDevice);
    EXPECT_EQ(plugin->Take(), WireExample("Device reply"));
    client->Accept(kDevice);
    ask();
}

} // namespace
} // namespace fodr::agent
