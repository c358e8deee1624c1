// Write-behind and read-ahead against a peer that answers when and in which order the test likes.
#include "ScriptedPlugin.h"
#include "agent/ReadAhead.h"
#include "agent/TransferWindow.h"
#include "agent/WriteBehind.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <gtest/gtest.h>
#include <numeric>

namespace fodr::agent {
namespace {

using test::Signal;

class DataTest : public ClientTest {
protected:
    DataTest()
    {
        StartWithShare();
        target = {share, 7, std::make_shared<WriteErrors>()};
    }
    void Write(uint64_t offset, const Bytes &bytes, Signal *accepted)
    {
        writes->Write(target, offset, bytes, accepted->Setter());
    }
    // Nothing that was sent is left untaken, and what the client has had to say it has said.
    void ExpectQuiet()
    {
        share->Close(0xEEEE, [](const IoResult &) {});
        const Request marker = plugin->TakeRequest();
        EXPECT_EQ(marker.Head().FileId, 0xEEEEu) << "a request that shouldn't have come";
    }

    TransferWindow window;
    std::shared_ptr<WriteBehind> writes = std::make_shared<WriteBehind>(window);
    WriteBehind::Target target;
};

using WriteBehindTest = DataTest;

TEST_F(WriteBehindTest, OverlappingWritesAreNeverUnderWayTogether)
{
    Signal accepted[4];
    Write(0, Bytes(10, 'a'), &accepted[0]);
    Write(5, Bytes(10, 'b'), &accepted[1]);  // waits for a
    Write(12, Bytes(10, 'c'), &accepted[2]); // waits for b
    Write(30, Bytes(10, 'd'), &accepted[3]); // free
    accepted[0].Wait();
    accepted[3].Wait();
    const Request first = plugin->TakeRequest(), free = plugin->TakeRequest();
    EXPECT_EQ(first.Offset(), 0u);
    EXPECT_EQ(free.Offset(), 30u);
    ExpectQuiet();
    EXPECT_FALSE(accepted[1].IsSet());
    plugin->CompleteNumber(first, 10);
    const Request second = plugin->TakeRequest();
    EXPECT_EQ(second.Payload(), Bytes(10, 'b'));
    ExpectQuiet();
    plugin->CompleteNumber(second, 10);
    accepted[1].Wait();
    EXPECT_EQ(plugin->TakeRequest().Offset(), 12u);
}

TEST_F(WriteBehindTest, BarriersWaitForWhatOverlapsAndCameBefore)
{
    Signal accepted, low, high, both, later;
    Write(0, Bytes(10), &accepted);
    Write(100, Bytes(10), &accepted);
    writes->WhenRangeDone(5, 1, low.Setter());
    writes->WhenRangeDone(50, 1000, high.Setter());
    writes->WhenDone(both.Setter());
    writes->WhenRangeDone(10, 90, later.Setter()); // touches neither
    later.Wait();
    Write(200, Bytes(10), &accepted); // begun after all of them
    const Request first = plugin->TakeRequest(), second = plugin->TakeRequest();
    plugin->CompleteNumber(second, 10);
    high.Wait();
    EXPECT_FALSE(low.IsSet());
    EXPECT_FALSE(both.IsSet());
    plugin->CompleteNumber(first, 10);
    low.Wait();
    both.Wait();
    EXPECT_EQ(target.errors->TakeForFlush(), nt::STATUS_SUCCESS);
}

TEST_F(WriteBehindTest, TheFirstFailureIsToldOnceToAWriteAndOnceToAFlush)
{
    const struct {
        const char *what;
        nt::NTSTATUS answer;
        uint32_t length;
        nt::NTSTATUS told;
    } cases[] = {
        {"refused", nt::STATUS_ACCESS_DENIED, 0, nt::STATUS_ACCESS_DENIED},
        {"cut short", nt::STATUS_SUCCESS, 4, nt::STATUS_DISK_FULL},
        {"longer than sent", nt::STATUS_SUCCESS, 11, STATUS_INVALID_NETWORK_RESPONSE},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.what);
        Signal accepted, drained;
        Write(0, Bytes(10), &accepted);
        Write(10, Bytes(10), &accepted);
        writes->WhenDone(drained.Setter());
        plugin->CompleteNumber(plugin->TakeRequest(), row.length, Bytes(1), row.answer);
        plugin->Complete(plugin->TakeRequest(), nt::STATUS_QUOTA_EXCEEDED);
        drained.Wait();
        EXPECT_EQ(target.errors->TakeForWrite(), row.told);
        EXPECT_EQ(target.errors->TakeForWrite(), nt::STATUS_SUCCESS);
        EXPECT_EQ(target.errors->TakeForFlush(), row.told);
        EXPECT_EQ(target.errors->TakeForFlush(), nt::STATUS_SUCCESS);
    }
}

TEST_F(WriteBehindTest, TheWriterWaitsWhenTheWindowIsFull)
{
    constexpr size_t kPiece = 256 << 10;
    Signal accepted;
    std::vector<Request> requests;
    uint64_t offset = 0;
    for (; offset + kPiece <= TransferWindow::kFirst; offset += kPiece) {
        Write(offset, Bytes(kPiece), &accepted);
        accepted.Wait();
        requests.push_back(plugin->TakeRequest());
    }
    Write(offset, Bytes(kPiece), &accepted);
    requests.push_back(plugin->TakeRequest());
    EXPECT_FALSE(accepted.IsSet());
    for (const Request &request : requests)
        plugin->CompleteNumber(request, kPiece);
    accepted.Wait();
}

TEST_F(WriteBehindTest, TheEndOfTheConnectionEndsEveryWait)
{
    Signal accepted[2], drained;
    Write(0, Bytes(10), &accepted[0]);
    Write(5, Bytes(10), &accepted[1]);
    writes->WhenDone(drained.Setter());
    plugin->TakeRequest();
    plugin->Close();
    drained.Wait();
    accepted[1].Wait();
    EXPECT_EQ(target.errors->TakeForFlush(), STATUS_CONNECTION_DISCONNECTED);
}

class ReadAheadTest : public DataTest {
protected:
    struct Outcome {
        nt::NTSTATUS status = nt::STATUS_SUCCESS;
        Bytes bytes;
    };
    // Byte i of the file is its offset's low byte.
    static Bytes Content(uint64_t offset, uint64_t length, uint64_t fileSize)
    {
        const uint64_t end = std::min(offset + length, fileSize);
        Bytes bytes(offset < end ? end - offset : 0);
        std::iota(bytes.begin(), bytes.end(), static_cast<uint8_t>(offset));
        return bytes;
    }
    void Read(uint64_t offset, uint32_t length)
    {
        reader->Read(offset, length, [this](nt::NTSTATUS status, std::span<const ByteSpan> parts) {
            Outcome outcome{status, {}};
            for (const ByteSpan part : parts)
                outcome.bytes.insert(outcome.bytes.end(), part.begin(), part.end());
            outcomes.Put(outcome);
        });
    }
    void Serve(uint64_t fileSize) { Serve(plugin->TakeRequest(), fileSize); }
    void Serve(const Request &request, uint64_t fileSize)
    {
        const Bytes bytes = Content(request.Offset(), request.Length(), fileSize);
        if (bytes.empty())
            plugin->Complete(request, nt::STATUS_END_OF_FILE);
        else
            plugin->CompleteData(request, bytes);
    }
    void ExpectRead(uint64_t offset, uint32_t length, uint64_t fileSize)
    {
        const Outcome outcome = outcomes.Take();
        EXPECT_EQ(outcome.status, nt::STATUS_SUCCESS);
        EXPECT_EQ(outcome.bytes, Content(offset, length, fileSize)) << offset;
    }

    static constexpr uint32_t kStep = 100 << 10;
    Mailbox<Outcome> outcomes;
    std::shared_ptr<ReadAhead> reader = std::make_shared<ReadAhead>(share, 7, writes, window);
};

TEST_F(ReadAheadTest, AReaderFromFrontToBackIsKeptSupplied)
{
    constexpr uint64_t kSize = 3'000'001;
    // Played by a thread: how many requests come depends on how the window grows.
    std::atomic<uint32_t> served{0};
    std::thread peer([&] {
        for (Request request; (request = plugin->TakeRequest()).Head().FileId != 0xEEEE; ++served)
            Serve(request, kSize);
    });
    for (uint64_t offset = 0; offset < kSize; offset += kStep) {
        Read(offset, kStep);
        ExpectRead(offset, kStep, kSize);
    }
    share->Close(0xEEEE, [](const IoResult &) {});
    peer.join();
    EXPECT_LT(served, kSize / kStep) << "larger pieces than were read one by one";
}

TEST_F(ReadAheadTest, ReadsHereAndThereAreOnlyPassedOn)
{
    for (uint64_t offset : {5'000'000u, 100u, 9'000'000u}) {
        Read(offset, 4096);
        Serve(10'000'000);
        ExpectRead(offset, 4096, 10'000'000);
    }
    ExpectQuiet();
}

TEST_F(ReadAheadTest, WhatWasReadAheadIsDroppedWhenTheFileChanges)
{
    reader->Prime(kStep, false);
    Serve(1 << 20);
    Read(0, 100);
    ExpectRead(0, 100, 1 << 20); // without a request
    ExpectQuiet();
    writes->DataChanged();
    Read(100, 100);
    Serve(1 << 20);
    ExpectRead(100, 100, 1 << 20);
}

TEST_F(ReadAheadTest, AWaitingReadIsServedFromTheBlockAndKnowsTheEnd)
{
    reader->Prime(kStep, false);
    Read(0, 50'000);
    Read(0, 70'000);
    Serve(60'000);
    ExpectRead(0, 50'000, 60'000);
    ExpectRead(0, 70'000, 60'000);
}

TEST_F(ReadAheadTest, AReadBeyondTheExpectedEndWaitsForIt)
{
    reader->Prime(6, true);
    Read(0, 4096);
    Serve(5);
    ExpectRead(0, 4096, 5);
    ExpectQuiet();
    reader = std::make_shared<ReadAhead>(share, 7, writes, window);
    reader->Prime(6, true);
    Read(0, 4096);
    Serve(10'000); // it has grown
    Serve(10'000);
    ExpectRead(0, 4096, 10'000);
}

TEST_F(ReadAheadTest, AFailureAheadIsNotTheReadersFailure)
{
    reader->Prime(kStep, false);
    Read(0, 100);
    plugin->Complete(plugin->TakeRequest(), nt::STATUS_FILE_LOCK_CONFLICT);
    Serve(1 << 20); // exactly what was asked for
    ExpectRead(0, 100, 1 << 20);
    Read(7'000'000, 100);
    plugin->Complete(plugin->TakeRequest(), nt::STATUS_FILE_LOCK_CONFLICT);
    EXPECT_EQ(outcomes.Take().status, nt::STATUS_FILE_LOCK_CONFLICT);
}

constexpr size_t kBlock = 128 << 10;

// A connection on a clock of its own, kept as busy as the window allows.
class BusyLine {
public:
    BusyLine(double bytesPerSecond, double roundTrip) : rate(bytesPerSecond), delay(roundTrip) {}

    // A file is opened; the answer waits behind the data that is on its way.
    void Open()
    {
        const double begun = now;
        now = std::max(now, busyUntil) + delay;
        window.NoteRoundTrip(At(begun), sent.empty(), At(now));
    }
    // Bytes a second that arrive.
    double Run(double seconds)
    {
        const double begun = now;
        size_t arrived = 0;
        while (now < begun + seconds) {
            while (sent.empty() || window.InFlight() < window.Limit())
                Send();
            mostOnTheWay = std::max(mostOnTheWay, window.InFlight());
            now = std::max(now, sent.front().arrives);
            arrived += kBlock;
            window.End(sent.front().transfer, At(now));
            sent.pop_front();
        }
        return static_cast<double>(arrived) / (now - begun);
    }

    double rate, delay;
    size_t mostOnTheWay = 0;

private:
    struct Sent {
        double arrives;
        TransferWindow::Transfer transfer;
    };
    static TransferWindow::Time At(double seconds)
    {
        return TransferWindow::Time() + std::chrono::nanoseconds(static_cast<int64_t>(1e9 * seconds));
    }
    void Send()
    {
        busyUntil = std::max(busyUntil, now) + kBlock / rate;
        sent.push_back({busyUntil + delay, window.Begin(kBlock, At(now))});
    }

    TransferWindow window;
    double now = 100, busyUntil = 0; // seconds
    std::deque<Sent> sent;
};

constexpr double kMegabytes = 1 << 20;

TEST(TransferWindow, KeepsNearAndFarConnectionsBusyAndNoMore)
{
    const struct {
        double rate, delay;
        bool opened; // else the delay is known from the data alone
    } lines[] = {
        {500 * kMegabytes, 0.0002, true}, {100 * kMegabytes, 0.05, true}, {100 * kMegabytes, 0.05, false},
        {30 * kMegabytes, 0.2, true},     {30 * kMegabytes, 0.2, false},  {2 * kMegabytes, 0.1, true},
    };
    for (const auto &[rate, delay, opened] : lines) {
        SCOPED_TRACE(testing::Message() << rate / kMegabytes << " MiB/s at " << delay << " s");
        BusyLine line(rate, delay);
        if (opened)
            line.Open();
        line.Run(12 * delay);
        EXPECT_GT(line.Run(40 * delay), 0.85 * rate);
        line.mostOnTheWay = 0;
        line.Run(1);
        EXPECT_LT(static_cast<double>(line.mostOnTheWay), rate * (2 * delay + 0.03) + 2 * kBlock);
    }
}

TEST(TransferWindow, FollowsAConnectionThatChanges)
{
    BusyLine line(50 * kMegabytes, 0.005);
    line.Open();
    line.Run(2);
    line.delay = 0.15;
    line.Run(25); // until the old delay is forgotten
    EXPECT_GT(line.Run(5), 0.85 * line.rate);
    line.rate = 5 * kMegabytes;
    line.Run(30);
    line.mostOnTheWay = 0;
    EXPECT_GT(line.Run(5), 0.85 * line.rate);
    EXPECT_LT(static_cast<double>(line.mostOnTheWay), line.rate * (2 * line.delay + 0.03) + 2 * kBlock);
}

} // namespace
} // namespace fodr::agent
