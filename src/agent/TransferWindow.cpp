#include "agent/TransferWindow.h"

#include <algorithm>

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
    const transport::MutexLock held(lock);
    // With nothing on its way, the time that nothing arrived doesn't count.
    if (inFlight == 0)
        deliveredAt = now;
    inFlight += bytes;
    return {.bytes = bytes, .begun = now, .deliveredBefore = delivered, .deliveredAt = deliveredAt};
}

void TransferWindow::Measure(const Transfer &transfer, Time now)
{
    delivered += transfer.bytes;
    deliveredAt = now;
    const double elapsed = std::max(Seconds(now - transfer.deliveredAt), kShortestDelay);
    rate.Take(static_cast<double>(delivered - transfer.deliveredBefore) / elapsed, now, kRateSpan);
    const double bytesPerSecond = rate.Value();
    // What the bytes themselves took isn't delay.
    const double own = static_cast<double>(transfer.bytes) / bytesPerSecond;
    delay.Take(std::max(Seconds(now - transfer.begun) - own, kShortestDelay), now, kDelaySpan);
    const double wanted = bytesPerSecond * (2 * delay.Value() + kSlack);
    limit = static_cast<size_t>(
        std::clamp(wanted, static_cast<double>(kSmallest), static_cast<double>(kLargest)));
}

void TransferWindow::End(const Transfer &transfer, Time now)
{
    std::vector<Waiter> released;
    {
        const transport::MutexLock held(lock);
        inFlight -= transfer.bytes;
        Measure(transfer, now);
        if (inFlight <= limit)
            released.swap(waiters);
    }
    for (Waiter &waiter : released)
        waiter();
}

void TransferWindow::WhenBelow(Waiter waiter)
{
    {
        const transport::MutexLock held(lock);
        if (inFlight > limit) {
            waiters.push_back(std::move(waiter));
            return;
        }
    }
    waiter();
}

} // namespace fodr::agent
