// Notices that a change has ended and whose answers are still on their way, of one nt::NoticeOrder. Any
// thread.
#pragma once

#include "lib/misc/Mutex.h"
#include "platform/Nt.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <set>

namespace fodr::nt {

struct NoticeOrder::State {
    static State &Of(const NoticeOrder &order) { return *order.state; }
    // The delivery of this thread, or null.
    static Delivery *OfThisThread();
    // The call of the delivery waits for a change from now on, until its delivery is over. Null is nobody's.
    static void Waits(Delivery *delivery);
    // A change ends the call of the delivery; to be said before the call's thread can go on. Null is
    // nobody's.
    static void Ended(Delivery *delivery);
    // It had ended otherwise.
    static void NotEnded(Delivery *delivery);

    void WaitUntilDelivered() EXCLUDES(lock);

    std::atomic<size_t> waiting{0};   // deliveries whose calls wait, or have waited
    std::atomic<size_t> endedOnes{0}; // as many as `ended` has

private:
    Mutex lock;
    std::condition_variable_any delivered;
    std::set<uint64_t> ended GUARDED_BY(lock); // numbers, the oldest first
    uint64_t lastNumber GUARDED_BY(lock) = 0;
};

} // namespace fodr::nt
