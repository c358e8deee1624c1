// Names of a folder and their facts that one answer told together, so that those who look up one name after
// the other don't ask for each. Any thread.
#pragma once

#include "agent/FileFacts.h"
#include "lib/misc/Mutex.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <unordered_map>

namespace fodr::agent {

class RecentNames {
public:
    using Clock = std::chrono::steady_clock;

    // What one answer told; the names stay as they are.
    struct Told {
        Clock::time_point asked{};
        std::unordered_map<std::u16string, FileFacts> names;
        mutable std::atomic<bool> forgotten{false}; // the folder has changed since
    };
    using ToldPtr = std::shared_ptr<const Told>;

    // For a lookup: what was told within the span, or null. `*ask`: comes in as whether asking is welcome,
    // and goes out as whether it is worth it now; then the caller asks, and calls Answered.
    ToldPtr Recall(Clock::time_point now, Clock::duration span, bool *ask);
    // A lookup was answered from it.
    void NoteUse() { ++uses; }
    // `answer` lists entries, with ids or without (DirectoryReader); empty when there was none.
    void Answered(Clock::time_point asked, ByteSpan answer, FileIds ids);
    // What was asked for until now doesn't count.
    void Forget(Clock::time_point now);

private:
    Mutex lock;
    ToldPtr told GUARDED_BY(lock);
    bool asking GUARDED_BY(lock) = false;
    Clock::time_point lastLookup GUARDED_BY(lock){}, lastAsked GUARDED_BY(lock){},
        forgotten GUARDED_BY(lock){};
    // Asking that has served few lookups is done more and more seldom.
    Clock::duration pause GUARDED_BY(lock){};
    std::atomic<unsigned> uses{0};
};

} // namespace fodr::agent
