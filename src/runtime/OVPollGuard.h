// What an item and its thread share.
#pragma once

#include "runtime/OVPollThread.h"

namespace fodr {

inline constexpr int kPollDecimals = 3; // of durations in log lines

// As a pointer is printed on a system whose %p doesn't say "0x".
inline unsigned long long PollIdForLog(uint64_t pollId)
{
    return pollId;
}
// "INFINITE" for -1.
std::string PollDurationText(int64_t ms);
// Empty when the thread is gone.
RCPtr<OVPollThread> FindPollThread(uint64_t pollId);

// For an item that belongs to no thread nothing is held and nobody told.
class SCOPED_CAPABILITY OVPollThread::Guard {
public:
    explicit Guard(OVPollThread *heldThread) ACQUIRE(heldThread->lock) NO_THREAD_SAFETY_ANALYSIS
        : thread(heldThread)
    {
        if (thread)
            thread->Lock();
    }
    ~Guard() RELEASE() NO_THREAD_SAFETY_ANALYSIS
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
