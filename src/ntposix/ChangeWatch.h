// The change notification of one directory handle, from its first call until it is closed: what it asks for,
// who waits, and whether something changed while nobody did. Any thread.
#pragma once

#include "lib/misc/Mutex.h"
#include "ntposix/BlockedCall.h"
#include "ntposix/FileObject.h"
#include "platform/Nt.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

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

} // namespace fodr::ntposix
