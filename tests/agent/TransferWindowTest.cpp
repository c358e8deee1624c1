#include "agent/TransferWindow.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>

namespace fodr::agent {
namespace {

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
