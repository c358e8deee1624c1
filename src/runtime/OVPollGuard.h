// What an item and its thread share.
#pragma once

#include "runtime/OVPollThread.h"

namespace fodr {

inline constexpr int kPollDecimals = 3; // of durations in log lines

// "INFINITE" for -1.
std::string PollDurationText(int64_t ms);
// Empty when the thread is gone.
RCPtr<OVPollThread> FindPollThread(uint64_t pollId);

// For an item that belongs to no thread nothing is held and nobody told.
class OVPollThread::Guard {
public:
    explicit Guard(OVPollThread *heldThread) : thread(heldThread)
    {
        if (thread)
            thread->Lock();
    }
    ~Guard()
    {
        if (thread)
            thread->Unlock();
    }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

    void SetDirty() const
    {
        if (thread)
            thread->dirtyEvent.Set();
    }
    const char *Name() const { return thread ? thread->name.c_str() : "no thread"; }

private:
    OVPollThread *const thread;
};

} // namespace fodr
