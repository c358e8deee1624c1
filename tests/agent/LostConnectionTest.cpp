// What becomes of requests, files and shares when the connection is lost and comes back.
#include "ScriptedPlugin.h"
#include "agent/BlockingShare.h"
#include "agent/WriteBehind.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <set>

namespace fodr::agent {
namespace {

constexpr uint32_t kNewDevice = 0x21;
constexpr uint32_t kFile = 0x44, kFileAgain = 0x55; // numbers of the wire
constexpr uint64_t kIdentity = 0x1234567890;
constexpr RemoteShare::CreateCall kOpen = {.desiredAccess = nt::FILE_READ_DATA,
                                           .createDisposition = nt::FILE_OPEN};

struct KnownFile final : IReopen {
    bool Place(std::u16string *path) override
    {
        *path = place;
        return !place.empty();
    }
    uint64_t ExpectedId() override { return identity; }
    bool MayBe(const FileFacts &facts) override { return facts.endOfFile >= 100; }

    std::u16string place = u"\\moved";
    uint64_t identity = kIdentity;
};

Bytes NumberOf(uint64_t number, size_t size = 8)
{
    Bytes bytes(size);
    StoreLittle(bytes.data(), number);
    return bytes;
}

class LostConnection : public ClientTest {
protected:
    uint32_t RemoteFile(std::shared_ptr<IReopen> reopen)
    {
        auto opened = StartCall(share->Create(kOpen, u"\\file"));
        plugin->CompleteNumber(plugin->TakeRequest(), kFile);
        const uint32_t fileId = opened.get().fileId;
        if (reopen)
            share->Remember(fileId, std::move(reopen));
        return fileId;
    }
    Request TakeOf(uint32_t major, uint32_t deviceId, uint32_t fileId)
    {
        const Request request = plugin->TakeRequest();
        EXPECT_EQ(request.Head().MajorFunction, major);
        EXPECT_EQ(request.Head().DeviceId, deviceId);
        EXPECT_EQ(request.Head().FileId, fileId);
        return request;
    }
    // The answers that a file's opening again needs, but for the last.
    Request ReopenUpToIdentity()
    {
        const Request create = TakeOf(IRP_MJ_CREATE, kNewDevice, 0);
        EXPECT_EQ(create.Head().Body<DR_CREATE_REQ>().CreateDisposition, nt::FILE_OPEN);
        EXPECT_EQ(create.Head().Body<DR_CREATE_REQ>().DesiredAccess, kOpen.desiredAccess);
        EXPECT_EQ(create.Payload()[2], 'm'); // where it is by now
        plugin->CompleteNumber(create, kFileAgain);
        plugin->Complete(TakeOf(IRP_MJ_QUERY_INFORMATION, kNewDevice, kFileAgain),
                         nt::STATUS_INVALID_INFO_CLASS);
        return TakeOf(IRP_MJ_QUERY_INFORMATION, kNewDevice, kFileAgain);
    }
};

TEST_F(LostConnection, AFileIsOpenedAgainOnceForAllThatWaits)
{
    StartOutliving();
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    auto underWay = StartCall(share->Read(fileId, 7u, 5u));
    plugin->TakeRequest();
    Lose();
    const Bytes text = {'h', 'e', 'l', 'l', 'o'};
    auto asked = StartCall(share->Write(fileId, 9u, ByteSpan(text)));
    ComeBack(kNewDevice);
    EXPECT_EQ(back.Take().id, share->Device().id);
    plugin->CompleteData(ReopenUpToIdentity(), NumberOf(kIdentity));
    const Request read = TakeOf(IRP_MJ_READ, kNewDevice, kFileAgain);
    EXPECT_EQ(read.Offset(), 7u);
    const Request write = TakeOf(IRP_MJ_WRITE, kNewDevice, kFileAgain);
    EXPECT_EQ(write.Offset(), 9u);
    EXPECT_EQ(write.Payload(), text);
    plugin->CompleteData(read, text);
    plugin->CompleteNumber(write, 5);
    EXPECT_EQ(underWay.get().data, text);
    EXPECT_EQ(asked.get().length, 5u);
    // It is open now.
    auto next = StartCall(share->Close(fileId));
    plugin->Complete(TakeOf(IRP_MJ_CLOSE, kNewDevice, kFileAgain), nt::STATUS_SUCCESS);
    EXPECT_EQ(next.get().status, nt::STATUS_SUCCESS);
}

TEST_F(LostConnection, AFileThatIsClosedMeanwhileIsNotWaitedFor)
{
    StartOutliving();
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    Lose();
    auto read = StartCall(share->Read(fileId, 0u, 5u));
    ComeBack(kNewDevice);
    const Request query = ReopenUpToIdentity();
    EXPECT_EQ(BlockingCall(share->Close(fileId)).status, nt::STATUS_SUCCESS);
    plugin->CompleteData(query, NumberOf(kIdentity));
    EXPECT_EQ(read.get().status, STATUS_FILE_INVALID);
    TakeOf(IRP_MJ_CLOSE, kNewDevice, kFileAgain);
}

TEST_F(LostConnection, AnotherFileIsRefused)
{
    enum class Case { OtherId, Gone, NoPlace, TooSmall, LargeEnough };
    for (const Case tried : {Case::OtherId, Case::Gone, Case::NoPlace, Case::TooSmall, Case::LargeEnough}) {
        StartOutliving();
        auto known = std::make_shared<KnownFile>();
        const uint32_t fileId = RemoteFile(known);
        Lose();
        if (tried == Case::NoPlace)
            known->place.clear();
        if (tried == Case::TooSmall || tried == Case::LargeEnough)
            known->identity = 0;
        auto read = StartCall(share->Read(fileId, 0u, 5u));
        ComeBack(kNewDevice);
        switch (tried) {
        case Case::OtherId:
            plugin->CompleteData(ReopenUpToIdentity(), NumberOf(kIdentity + 1));
            break;
        case Case::Gone:
            plugin->Complete(TakeOf(IRP_MJ_CREATE, kNewDevice, 0), nt::STATUS_OBJECT_NAME_NOT_FOUND);
            break;
        case Case::NoPlace:
            break;
        case Case::TooSmall:
        case Case::LargeEnough: {
            plugin->CompleteNumber(TakeOf(IRP_MJ_CREATE, kNewDevice, 0), kFileAgain);
            Bytes facts(56);
            facts[40] = tried == Case::TooSmall ? 99 : 100;
            plugin->CompleteData(TakeOf(IRP_MJ_QUERY_INFORMATION, kNewDevice, kFileAgain), facts);
            break;
        }
        }
        if (tried == Case::LargeEnough) {
            plugin->CompleteData(TakeOf(IRP_MJ_READ, kNewDevice, kFileAgain), {1});
            EXPECT_EQ(read.get().data, Bytes{1});
        } else {
            if (tried == Case::OtherId || tried == Case::TooSmall)
                TakeOf(IRP_MJ_CLOSE, kNewDevice, kFileAgain);
            EXPECT_EQ(read.get().status, STATUS_FILE_INVALID);
            EXPECT_EQ(BlockingCall(share->Read(fileId, 0u, 5u)).status, STATUS_FILE_INVALID);
        }
        TearDown();
    }
}

TEST_F(LostConnection, OnlyWhatDoesNoHarmIsRepeated)
{
    StartOutliving();
    const uint32_t kept = RemoteFile(std::make_shared<KnownFile>()), plain = RemoteFile(nullptr);
    RemoteShare::CreateCall make = kOpen, deleting = kOpen;
    make.createDisposition = nt::FILE_CREATE;
    deleting.createOptions = nt::FILE_DELETE_ON_CLOSE;
    const Bytes size = NumberOf(5);
    struct {
        std::future<OwnedResult> call;
        nt::NTSTATUS outcome; // STATUS_PENDING: it is asked again
    } rows[] = {
        {StartCall(share->Create(make, u"\\new")), STATUS_CONNECTION_DISCONNECTED},
        {StartCall(share->Create(deleting, u"\\old")), STATUS_CONNECTION_DISCONNECTED},
        {StartCall(share->Rename(kept, u"\\other", true)), STATUS_CONNECTION_DISCONNECTED},
        {StartCall(share->Delete(kept)), STATUS_CONNECTION_DISCONNECTED},
        {StartWatch(*share, plain), STATUS_CONNECTION_DISCONNECTED},
        {StartCall(share->Read(plain, 0u, 1u)), STATUS_FILE_INVALID},
        {StartCall(share->Close(plain)), nt::STATUS_SUCCESS},
        {StartCall(share->Create(kOpen, u"\\there")), nt::STATUS_PENDING},
        {StartCall(share->SetInformation(kept, nt::FileEndOfFileInformation, ByteSpan(size))),
         nt::STATUS_PENDING},
    };
    for (size_t i = 0; i < std::size(rows); ++i)
        plugin->TakeRequest();
    Lose();
    // Not asked before, so it isn't asked twice.
    auto later = StartCall(share->Create(make, u"\\later"));
    EXPECT_EQ(BlockingCall(share->Read(plain, 0u, 1u)).status, STATUS_FILE_INVALID);
    // The number of the directory it goes to would be another's by then.
    EXPECT_EQ(BlockingCall(share->RenameInto(kept, plain, u"name", true)).status, STATUS_FILE_INVALID);
    for (auto &row : rows) {
        if (row.outcome != nt::STATUS_PENDING) {
            EXPECT_EQ(row.call.get().status, row.outcome) << &row - rows;
        }
    }
    ComeBack(kNewDevice);
    std::multiset<uint32_t> dispositions;
    for (int i = 0; i < 3; ++i) { // two that waited, and the file's opening
        const Request create = TakeOf(IRP_MJ_CREATE, kNewDevice, 0);
        dispositions.insert(create.Head().Body<DR_CREATE_REQ>().CreateDisposition);
        plugin->Complete(create, nt::STATUS_ACCESS_DENIED);
    }
    EXPECT_EQ(dispositions, (std::multiset<uint32_t>{nt::FILE_OPEN, nt::FILE_OPEN, nt::FILE_CREATE}));
    EXPECT_EQ(rows[7].call.get().status, nt::STATUS_ACCESS_DENIED);
    EXPECT_EQ(rows[8].call.get().status, nt::STATUS_ACCESS_DENIED); // for this once
    EXPECT_EQ(later.get().status, nt::STATUS_ACCESS_DENIED);
}

// The directory's number is in what waits, and another directory has it on the next connection.
TEST_F(LostConnection, ARenameIntoADirectoryIsOfItsConnection)
{
    StartOutliving();
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    Lose();
    ComeBack(kNewDevice);
    const uint32_t directory = RemoteFile(std::make_shared<KnownFile>());
    auto rename = StartCall(share->RenameInto(fileId, directory, u"name", true));
    ReopenUpToIdentity(); // the file is opened again meanwhile
    Lose();
    EXPECT_EQ(rename.get().status, STATUS_CONNECTION_DISCONNECTED);
    // Over one connection it is done.
    ComeBack(kNewDevice);
    const uint32_t now = RemoteFile(std::make_shared<KnownFile>());
    rename = StartCall(share->RenameInto(fileId, now, u"name", true));
    plugin->CompleteData(ReopenUpToIdentity(), NumberOf(kIdentity));
    const Request sent = TakeOf(IRP_MJ_SET_INFORMATION, kNewDevice, kFileAgain);
    EXPECT_EQ(LoadLittle<uint32_t>(&sent.Payload()[8]), kFile);
    plugin->Complete(sent, nt::STATUS_SUCCESS);
    EXPECT_EQ(rename.get().status, nt::STATUS_SUCCESS);
}

TEST_F(LostConnection, WaitingEndsWithItsTime)
{
    constexpr unsigned kTime = 10000; // beside which the client's own clock counts for nothing
    StartOutliving(kTime);
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    Lose();
    auto first = StartCall(share->Read(fileId, 0u, 5u));
    for (unsigned i = 0; i < kTime - 1000; ++i)
        client->Tick();
    EXPECT_EQ(client->Requests().InFlight(), 1u);
    auto second = StartCall(share->Create(kOpen, u"\\file"));
    for (unsigned i = 0; i < 1001; ++i)
        client->Tick();
    EXPECT_EQ(first.get().status, STATUS_IO_TIMEOUT);
    ComeBack(kNewDevice);
    // The first isn't asked any more: nobody opens its file.
    plugin->CompleteNumber(TakeOf(IRP_MJ_CREATE, kNewDevice, 0), kFileAgain);
    EXPECT_FALSE(second.get().Failed());
}

TEST_F(LostConnection, WhatWaitsIsBounded)
{
    StartOutliving();
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    Lose();
    const Bytes large(16 << 20);
    std::vector<std::future<OwnedResult>> waiting;
    for (int i = 0; i < 3; ++i)
        waiting.push_back(StartCall(share->Write(fileId, 0u, ByteSpan(large))));
    EXPECT_EQ(BlockingCall(share->Write(fileId, 0u, ByteSpan(large))).status, STATUS_CONNECTION_DISCONNECTED);
    client.reset(); // and what waits is answered at the end
    for (auto &write : waiting)
        EXPECT_EQ(write.get().status, STATUS_CONNECTION_DISCONNECTED);
}

TEST_F(LostConnection, WritesKeepTheirOrder)
{
    StartOutliving();
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    TransferWindow window;
    const auto writes = std::make_shared<WriteBehind>(window);
    const WriteBehind::Target target = {share, fileId, std::make_shared<WriteErrors>()};
    const auto write = [&](uint64_t offset, uint8_t text) {
        writes->Write(target, offset, Bytes(10, text), [] {});
    };
    write(0, 'a');
    write(5, 'b'); // overlaps
    write(20, 'c');
    plugin->TakeRequest();
    plugin->TakeRequest();
    Lose();
    bool done = false;
    writes->WhenDone([&done] { done = true; });
    EXPECT_FALSE(done);
    ComeBack(kNewDevice);
    plugin->CompleteData(ReopenUpToIdentity(), NumberOf(kIdentity));
    for (const uint8_t text : {'a', 'c', 'b'}) {
        const Request request = TakeOf(IRP_MJ_WRITE, kNewDevice, kFileAgain);
        EXPECT_EQ(request.Payload(), Bytes(10, text));
        plugin->CompleteNumber(request, 10);
    }
    Mailbox<int> finished;
    writes->WhenDone([&finished] { finished.Put(1); });
    finished.Take();
    EXPECT_EQ(target.errors->TakeForFlush(), nt::STATUS_SUCCESS);
}

// What a look at the file finds decides whether an append that was under way is sent again.
TEST_F(LostConnection, AnAppendIsDoneOnce)
{
    enum class End { Done, SentAgain, Fails };
    const std::string line = "line\n";
    struct {
        const char *what;
        int64_t floor; // -1: not known
        std::string appendedBefore;
        size_t size;        // by then
        std::string behind; // what is read, if the size alone doesn't tell
        End end;
    } rows[] = {
        {"not there", 10, "", 10, "", End::SentAgain},
        {"there", 10, "", 15, line, End::Done},
        {"between lines of others", 10, "", 24, "others\nline\nmo", End::Done},
        {"only lines of others", 10, "", 20, "others\nlin", End::SentAgain},
        {"too short to be it", 10, "", 13, "", End::SentAgain},
        {"truncated, and not there", 10, "", 7, "others\n", End::SentAgain},
        {"truncated, and the same is there", 10, "", 7, "oline\nx", End::Fails},
        {"no size was known", -1, "", 7, "oline\nx", End::Fails},
        {"behind what was appended before", 10, "first\n", 21, line, End::Done},
        {"the same was appended before", 10, line, 20, line, End::Done},
        {"the same was appended before, and others did", 10, line, 21, "\nline\n", End::Fails},
        {"more than is read", 10, "", 10 + kMostSearched + 1, "", End::Fails},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        StartOutliving();
        const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
        TransferWindow window;
        const auto writes = std::make_shared<WriteBehind>(window);
        const WriteBehind::Target target = {share, fileId, std::make_shared<WriteErrors>()};
        FileFacts facts;
        facts.endOfFile = row.floor;
        if (row.floor >= 0)
            writes->NoteFacts(facts, writes->Generation());
        const auto append = [&](const std::string &text) {
            writes->Append(target, Bytes(text.begin(), text.end()), [] {});
        };
        Mailbox<int> finished;
        if (!row.appendedBefore.empty()) {
            append(row.appendedBefore);
            plugin->CompleteNumber(plugin->TakeRequest(), static_cast<uint32_t>(row.appendedBefore.size()));
            writes->WhenDone([&finished] { finished.Put(1); });
            finished.Take();
        }
        append(line);
        plugin->TakeRequest();
        append("next\n");
        writes->WhenDone([&finished] { finished.Put(2); });
        Lose();
        ComeBack(kNewDevice);
        plugin->CompleteData(ReopenUpToIdentity(), NumberOf(kIdentity));
        Bytes record(56);
        StoreLittle<uint64_t>(&record[40], row.size);
        plugin->CompleteData(TakeOf(IRP_MJ_QUERY_INFORMATION, kNewDevice, kFileAgain), record);
        if (!row.behind.empty()) {
            constexpr uint32_t kLooking = 0x66;
            const Request create = TakeOf(IRP_MJ_CREATE, kNewDevice, 0);
            EXPECT_NE(create.Head().Body<DR_CREATE_REQ>().DesiredAccess & nt::FILE_READ_DATA, 0u);
            plugin->CompleteNumber(create, kLooking);
            plugin->CompleteData(TakeOf(IRP_MJ_QUERY_INFORMATION, kNewDevice, kLooking), NumberOf(kIdentity));
            const Request read = TakeOf(IRP_MJ_READ, kNewDevice, kLooking);
            EXPECT_EQ(read.Offset() + row.behind.size(), row.size);
            EXPECT_EQ(read.Length(), row.behind.size());
            plugin->CompleteData(read, Bytes(row.behind.begin(), row.behind.end()));
            TakeOf(IRP_MJ_CLOSE, kNewDevice, kLooking);
        }
        if (row.end == End::SentAgain) {
            const Request again = TakeOf(IRP_MJ_WRITE, kNewDevice, kFileAgain);
            EXPECT_EQ(again.Payload(), Bytes(line.begin(), line.end()));
            plugin->CompleteNumber(again, static_cast<uint32_t>(line.size()));
        }
        const Request next = TakeOf(IRP_MJ_WRITE, kNewDevice, kFileAgain); // not before
        EXPECT_EQ(next.Payload()[0], 'n');
        plugin->CompleteNumber(next, 5);
        EXPECT_EQ(finished.Take(), 2);
        EXPECT_EQ(target.errors->TakeForFlush(),
                  row.end == End::Fails ? STATUS_CONNECTION_DISCONNECTED : nt::STATUS_SUCCESS);
        TearDown();
    }
}

TEST_F(LostConnection, AnAppendIsLookedForAgainAfterASecondLoss)
{
    StartOutliving();
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    TransferWindow window;
    const auto writes = std::make_shared<WriteBehind>(window);
    const WriteBehind::Target target = {share, fileId, std::make_shared<WriteErrors>()};
    writes->NoteFacts({}, writes->Generation());
    Bytes record(56);
    const auto look = [&](uint8_t size) {
        Lose();
        ComeBack(kNewDevice);
        plugin->CompleteData(ReopenUpToIdentity(), NumberOf(kIdentity));
        record[40] = size;
        plugin->CompleteData(TakeOf(IRP_MJ_QUERY_INFORMATION, kNewDevice, kFileAgain), record);
    };
    writes->Append(target, Bytes(10, 'a'), [] {});
    plugin->TakeRequest();
    look(0);
    TakeOf(IRP_MJ_WRITE, kNewDevice, kFileAgain);
    look(5); // somebody else's
    plugin->CompleteNumber(TakeOf(IRP_MJ_WRITE, kNewDevice, kFileAgain), 10);
    Mailbox<int> finished;
    writes->WhenDone([&finished] { finished.Put(1); });
    finished.Take();
    EXPECT_EQ(target.errors->TakeForFlush(), nt::STATUS_SUCCESS);
}

TEST_F(LostConnection, ASecondLossBeginsAnew)
{
    StartOutliving();
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    auto read = StartCall(share->Read(fileId, 0u, 1u));
    plugin->TakeRequest();
    Lose();
    ComeBack(kNewDevice);
    ReopenUpToIdentity();
    Lose();
    ComeBack(kNewDevice);
    plugin->CompleteData(ReopenUpToIdentity(), NumberOf(kIdentity));
    plugin->CompleteData(TakeOf(IRP_MJ_READ, kNewDevice, kFileAgain), {7});
    EXPECT_EQ(read.get().data, Bytes{7});
}

TEST_F(LostConnection, AShareIsBackOnceItCanBeUsed)
{
    acceptsShares = false;
    StartOutlivingWithoutShare();
    plugin->SendAnnounce(kDevice, "docs");
    share = std::make_shared<RemoteShare>(*client, devices.Take());
    auto asked = StartCall(share->Create(kOpen, u"\\"));
    plugin->TakeRequest();
    Lose();
    Reconnect();
    plugin->SendAnnounce(kNewDevice, "docs");
    plugin->Complete(TakeOf(IRP_MJ_CREATE, kNewDevice, 0),
                     nt::STATUS_ACCESS_DENIED); // and no reply before it
    EXPECT_EQ(asked.get().status, nt::STATUS_ACCESS_DENIED);
    EXPECT_TRUE(back.IsEmpty());
    client->Accept(share->Device().id);
    EXPECT_EQ(plugin->Take(), PacketOf(DR_CORE_DEVICE_ANNOUNCE_RSP{.DeviceId = kNewDevice}));
    Lose();
    ComeBack(kDevice);
    EXPECT_EQ(back.Take().id, share->Device().id);
}

TEST_F(LostConnection, AShareThatStaysAwayIsRemoved)
{
    StartOutliving();
    const uint32_t fileId = RemoteFile(std::make_shared<KnownFile>());
    Lose();
    auto read = StartCall(share->Read(fileId, 0u, 1u));
    ComeBack(kDevice, "others"); // with the number of the other
    const RemoteDevice other = devices.Take();
    EXPECT_NE(other.id, share->Device().id);
    client->DropMissingShares();
    EXPECT_EQ(removed.Take(), share->Device().id);
    EXPECT_EQ(read.get().status, nt::STATUS_DEVICE_REMOVED);
    // The other's requests have the wire's number.
    RemoteShare second(*client, other);
    auto opened = StartCall(second.Create(kOpen, u"\\file"));
    plugin->CompleteNumber(TakeOf(IRP_MJ_CREATE, kDevice, 0), kFile);
    EXPECT_FALSE(opened.get().Failed());
}

} // namespace
} // namespace fodr::agent
