#include "agent/TransferWindow.h"

#include <algorithm>
#include <iterator>

namespace fodr::agent {
namespace {

constexpr auto kRateSpan = std::chrono::seconds(5);
constexpr auto kDelaySpan = std::chrono::seconds(10);
constexpr double kShortestDelay = 0.0001;
constexpr double kSlack = 0.02; // seconds of data beyond two round trips: work of the other side, timers

double Seconds(TransferWindow::Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

} // namespace

TransferWindow::Transfer TransferWindow::Begin(size_t bytes, Time now)
{
    const MutexLock held(lock);
    // With nothing on its way, the time that nothing arrived doesn't count.
    if (inFlight == 0)
        deliveredAt = now;
    inFlight += bytes;
    return {.bytes = bytes,
            .begun = now,
            .deliveredBefore = delivered,
            .deliveredAt = deliveredAt,
            .alone = inFlight == bytes};
}

void TransferWindow::Rate::Take(double value, Time now, Clock::duration span)
{
    if (now - since > span) {
        previous = now - since > 2 * span ? 0 : current;
        current = 0;
        since = now;
    }
    current = std::max(current, value);
}

// What the bytes of a transfer took themselves is part of its time: it can't be told apart while the rate is
// only what the limit let through, and taking it off then would keep the limit where it is.
void TransferWindow::MeasureDelay(Time begun, bool alone, Time now)
{
    const double seen = std::max(Seconds(now - begun), kShortestDelay);
    const bool old = now - delaySeen > kDelaySpan;
    if (delay == 0 || seen <= delay || (old && alone)) {
        delay = seen;
        delaySeen = now;
        probing = false;
    } else if (old) {
        probing = true;
    }
}

void TransferWindow::NoteRoundTrip(Time begun, bool alone, Time now)
{
    const MutexLock held(lock);
    MeasureDelay(begun, alone, now);
}

void TransferWindow::Measure(const Transfer &transfer, Time now)
{
    delivered += transfer.bytes;
    deliveredAt = now;
    const double elapsed = std::max(Seconds(now - transfer.deliveredAt), kShortestDelay);
    rate.Take(static_cast<double>(delivered - transfer.deliveredBefore) / elapsed, now, kRateSpan);
    MeasureDelay(transfer.begun, transfer.alone, now);
    const double wanted = rate.Value() * (2 * delay + kSlack);
    limit = static_cast<size_t>(
        std::clamp(wanted, static_cast<double>(kSmallest), static_cast<double>(kLargest)));
}

void TransferWindow::End(const Transfer &transfer, Time now)
{
    std::vector<Waiter> released;
    {
        const MutexLock held(lock);
        inFlight -= transfer.bytes;
        Measure(transfer, now);
        if (inFlight <= Limit())
            released.swap(waiters);
        if (inFlight == 0) {
            std::ranges::move(waitersForEmpty, std::back_inserter(released));
            waitersForEmpty.clear();
        }
    }
    for (Waiter &waiter : released)
        waiter();
}

void TransferWindow::WhenBelow(Waiter waiter)
{
    {
        const MutexLock held(lock);
        if (inFlight > Limit()) {
            waiters.push_back(std::move(waiter));
            return;
        }
    }
    waiter();
}

void TransferWindow::WhenEmpty(Waiter waiter)
{
    {
        const MutexLock held(lock);
        if (inFlight != 0) {
            waitersForEmpty.push_back(std::move(waiter));
            return;
        }
    }
    waiter();
}

} // namespace fodr::agent
