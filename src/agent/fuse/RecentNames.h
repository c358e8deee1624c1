// Names of a folder and their facts that one answer told together, so that those who look up one name after
// the other don't ask for each. Any thread.
#pragma once

#include "agent/FileFacts.h"
#include "transport/Mutex.h"

#include <chrono>
#include <memory>
#include <string>
#include <unordered_map>

namespace fodr::agent {

class RecentNames {
public:
    using Clock = std::chrono::steady_clock;

    // What one answer told; it stays as it is.
    struct Told {
        Clock::time_point asked{};
        std::unordered_map<std::u16string, FileFacts> names;
    };
    using ToldPtr = std::shared_ptr<const Told>;

    // For a lookup: what was told within the span, or null. While the folder is watched it is believed for
    // longer, until Forget; `*age` is how old it counts then, else how old it is. `*ask` says that it is
    // worth asking now; whoever hears it asks and calls Answered.
    ToldPtr Recall(Clock::time_point now, Clock::duration span, Clock::duration *age, bool *ask);
    // A lookup was answered from it.
    void NoteUse();
    // `answer` is of FileFullDirectoryInformation; empty when there was none.
    void Answered(Clock::time_point asked, ByteSpan answer);
    // What was asked for until now doesn't count.
    void Forget(Clock::time_point now);
    // Whether the other side tells of changes. Those between two watches it tells with the second.
    void SetWatched(bool isWatched, Clock::time_point now);

private:
    bool IsGood(Clock::time_point now, Clock::duration span, Clock::duration *age) const REQUIRES(lock);

    transport::Mutex lock;
    ToldPtr told GUARDED_BY(lock);
    bool asking GUARDED_BY(lock) = false;
    Clock::time_point lastLookup GUARDED_BY(lock){}, lastAsked GUARDED_BY(lock){},
        forgotten GUARDED_BY(lock){};
    // Asking that has served few lookups is done more and more seldom.
    Clock::duration pause GUARDED_BY(lock){};
    unsigned uses GUARDED_BY(lock) = 0;
    bool watched GUARDED_BY(lock) = false;
    Clock::time_point firstWatched GUARDED_BY(lock){};
};

} // namespace fodr::agent
