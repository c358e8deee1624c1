// The change notification of one directory handle, from its first call until it is closed: what it asks for,
// who waits, and whether something changed while nobody did. Any thread.
#pragma once

#include "lib/misc/Mutex.h"
#include "ntposix/BlockedCall.h"
#include "ntposix/FileObject.h"
#include "platform/Nt.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>

namespace fodr::ntposix {

class ChangeWatch {
public:
    // `watchedDirectory` stays open until the watch is out of its ChangeMonitor.
    ChangeWatch(int watchedDirectory, FileKey directoryKey, uint32_t completionFilter, bool watchTree)
        : directory(watchedDirectory), key(directoryKey), filter(completionFilter), tree(watchTree)
    {}

    const int directory;
    const FileKey key;
    const uint32_t filter; // FILE_NOTIFY_CHANGE_*
    const bool tree;

    // Something changed. If it is asked for, one waiting call ends, or the next one that comes.
    void Report(uint32_t changes) EXCLUDES(lock);
    // Nothing more can be seen: ends all calls, and those that come, with the status.
    void Fail(nt::NTSTATUS status) EXCLUDES(lock);
    // Until a change (STATUS_NOTIFY_ENUM_DIR) or what else ends the call.
    nt::NTSTATUS Wait(BlockedCall &call) EXCLUDES(lock);

private:
    struct Waiter {
        BlockedCall *call;
        nt::NoticeOrder::Delivery *delivery; // of the answer; may be null
    };

    static bool End(const Waiter &waiter, nt::NTSTATUS status);

    Mutex lock; // before that of a BlockedCall
    std::deque<Waiter> waiting GUARDED_BY(lock);
    bool changed GUARDED_BY(lock) = false;
    std::optional<nt::NTSTATUS> failure GUARDED_BY(lock);
};

// Between NT's completion filters and inotify's events.
inline constexpr uint32_t kEveryChange = 0xFFF; // all valid FILE_NOTIFY_CHANGE_* bits (MS-FSCC 2.6)

// The events that a watch with the filter has to hear of.
[[nodiscard]] uint32_t EventsOfFilter(uint32_t filter);
// What an event about an entry of a watched directory is to NT.
[[nodiscard]] uint32_t ChangesOfEvent(uint32_t event);

} // namespace fodr::ntposix

namespace fodr::nt {

// Notices that a change has ended and whose answers are still on their way, of one nt::NoticeOrder. Any
// thread.
struct NoticeOrder::State {
    static State &Of(const NoticeOrder &order) { return *order.state; }
    // The delivery of this thread, or null.
    static Delivery *OfThisThread();
    // The call of the delivery waits for a change from now on, until its delivery is over. Null is nobody's.
    static void Waits(Delivery *delivery);
    // A change ends the call of the delivery; to be said before the call's thread can go on. Null: nothing
    // to do.
    static void Ended(Delivery *delivery);
    // It had ended otherwise.
    static void NotEnded(Delivery *delivery);

    void WaitUntilDelivered() EXCLUDES(lock);

    std::atomic<size_t> waiting{0};   // deliveries whose calls wait, or have waited
    std::atomic<size_t> endedOnes{0}; // as many as `ended` has

private:
    Mutex lock;
    Condition delivered;
    std::set<uint64_t> ended GUARDED_BY(lock); // numbers, the oldest first
    uint64_t lastNumber GUARDED_BY(lock) = 0;
};

} // namespace fodr::nt
