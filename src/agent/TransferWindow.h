// How many bytes of file data may be on their way in one direction: enough to keep the connection busy, and
// no more, so that small requests don't wait behind seconds of data. The measure is the rate at which data
// arrives and the shortest time in which anything was answered. Any thread.
#pragma once

#include "agent/InlineFunction.h"
#include "lib/misc/Mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

namespace fodr::agent {

class TransferWindow {
public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;
    static constexpr size_t kSmallest = 256 << 10;
    static constexpr size_t kFirst = 1 << 20;
    static constexpr size_t kLargest = 16 << 20;

    struct Transfer {
        size_t bytes = 0;
        Time begun{};
        uint64_t deliveredBefore = 0;
        Time deliveredAt{};
        bool alone = false; // nothing else was on its way
    };
    Transfer Begin(size_t bytes, Time now);
    void End(const Transfer &transfer, Time now);
    // How long a request without data took, as that of opening a file; `alone`: with no data on its way.
    void NoteRoundTrip(Time begun, bool alone, Time now);

    size_t Limit() const { return probing && inFlight != 0 ? 0 : limit.load(); }
    size_t InFlight() const { return inFlight; }

    // Calls the function as soon as no more than the limit is on its way: now, or from an End.
    using Waiter = InlineFunction<void()>;
    void WhenBelow(Waiter waiter);
    // The same for when nothing is on its way.
    void WhenEmpty(Waiter waiter);

private:
    // The highest rate of the last one to two spans of time.
    struct Rate {
        double current = 0, previous = 0;
        Time since{};
        void Take(double value, Time now, Clock::duration span);
        double Value() const { return current > previous ? current : previous; }
    };
    void MeasureDelay(Time begun, bool alone, Time now) REQUIRES(lock);
    void Measure(const Transfer &transfer, Time now) REQUIRES(lock);

    std::atomic<size_t> limit{kFirst};
    std::atomic<size_t> inFlight{0};
    // The shortest delay is old: everything on its way is let run out, so that it can be measured anew.
    std::atomic<bool> probing{false};
    Mutex lock;
    uint64_t delivered GUARDED_BY(lock) = 0;
    Time deliveredAt GUARDED_BY(lock){};
    Rate rate GUARDED_BY(lock);        // bytes a second
    double delay GUARDED_BY(lock) = 0; // seconds; 0: not known
    Time delaySeen GUARDED_BY(lock){};
    std::vector<Waiter> waiters GUARDED_BY(lock);
    std::vector<Waiter> waitersForEmpty GUARDED_BY(lock);
};

} // namespace fodr::agent
