// OVPollThread: the body of its thread.
#include "runtime/LogCall.h"
#include "runtime/OVPollThread.h"
#include "runtime/OVTimer.h"

#include <algorithm>

namespace fodr {

namespace {

constexpr int32_t kExit = 0; // the first two entries of every wait
constexpr int32_t kDirty = 1;

constexpr const char *kScheduler = "OVPollThread::Scheduler()";

// All lines are the scheduler's, whichever step writes them.
#define LOG_SCHEDULER(level, ...)                                                                            \
    do {                                                                                                     \
        if (IsLogEnabled(level))                                                                             \
            LogWrite(kScheduler, (level), __VA_ARGS__);                                                      \
    } while (false)

} // namespace

struct OVPollThread::Round {
    Round(const OVThread &thread, const OVEvent &dirty) : events{thread.ExitEvent(), dirty}, owners(2) {}

    // Copies: an item's event may go while it is waited for.
    std::vector<OVEvent> events;
    std::vector<RCPtr<OVPollItem>> owners; // of the events, empty for the first two
    RCPtr<OVPollItem> next;                // to run when the time is up; then, who runs
    int64_t timeout = -1;
    bool alertable = false;
};

bool OVPollThread::SchedulerThreadCB(void *id, OVThread *)
{
    const RCPtr<OVPollThread> self = FindPollThread(reinterpret_cast<uintptr_t>(id));
    if (!self) {
        LOG_DEBUG("OVPollThread 0x%016llX not found", PollIdForLog(reinterpret_cast<uintptr_t>(id)));
        return false;
    }
    return self->Scheduler();
}

bool OVPollThread::Scheduler()
{
    const Guard guard(this);
    Round round(thread, dirtyEvent);
    for (;;) {
        if (RefCount(this) < 2) {
            LOG_SCHEDULER(LOG_LEVEL_INFO, "%s: I'm the last reference", name.c_str());
            return true;
        }
        Prepare(round);
        const int32_t result = Wait(round);
        if (!Choose(round, result))
            return false;
        if (round.next && MayRun(*round.next.Get()))
            RunItem(round.next, result == OVEvent::kTimeout);
    }
}

void OVPollThread::Prepare(Round &round)
{
    round.events.resize(2);
    round.owners.resize(2);
    round.next = nullptr;
    round.timeout = -1;
    for (const RCPtr<OVPollItem> &item : items) {
        if (item->disabled >= 1)
            continue;
        if (item->event) {
            round.events.push_back(*item->event);
            round.owners.push_back(item);
        }
        if (item->timer.IsPaused() || item->timeoutMS == -1)
            continue;
        int64_t remainder = item->timeoutMS - item->timer.ElapsedMS();
        if (remainder == -1)
            remainder = 0; // not to be taken for none
        if (!round.next || remainder < round.timeout) {
            round.next = item;
            round.timeout = remainder;
        }
    }
    if (round.timeout < -1)
        round.timeout = 0;
    round.alertable = alertable;
    dirtyEvent.Reset(); // under the lock: a change from here on ends the wait
    if (!IsLogEnabled(logLevel))
        return;
    const std::string text = PollDurationText(round.timeout);
    if (round.next)
        LOG_SCHEDULER(logLevel, "%s: Waiting for %s (%s)", name.c_str(), text.c_str(),
                      round.next->name.c_str());
    else
        LOG_SCHEDULER(logLevel, "%s: Waiting for %s", name.c_str(), text.c_str());
    LogAllItems(logLevel);
}

int32_t OVPollThread::Wait(Round &round)
{
    const uint32_t timeout = round.timeout == -1 ? kInfinite : static_cast<uint32_t>(round.timeout);
    Unlock();
    std::vector<OVEvent *> events;
    for (OVEvent &event : round.events)
        events.push_back(&event);
    const int32_t result = OVEvent::WaitForMultiple(events, false, timeout, false, round.alertable);
    Lock();
    return result;
}

bool OVPollThread::Choose(Round &round, int32_t result)
{
    switch (result) {
    case OVEvent::kFailed:
        LOG_SCHEDULER(LOG_LEVEL_ERROR, "%s: Error while waiting", name.c_str());
        return false;
    case kExit:
        LOG_SCHEDULER(LOG_LEVEL_INFO, "%s: Exit event signaled", name.c_str());
        return false;
    case kDirty:
        LOG_SCHEDULER(logLevel, "%s: Dirty event signaled", name.c_str());
        round.next = nullptr;
        return true;
    case OVEvent::kAlerted:
        LOG_SCHEDULER(logLevel, "%s: alertable signaled", name.c_str());
        round.next = nullptr;
        return true;
    case OVEvent::kTimeout:
        return true;
    default:
        round.next = static_cast<size_t>(result) < round.owners.size()
                         ? round.owners[static_cast<size_t>(result)]
                         : RCPtr<OVPollItem>();
        return true;
    }
}

// What has changed during the wait can have stopped it.
bool OVPollThread::MayRun(const OVPollItem &item) const
{
    return item.disabled < 1 && !item.timer.IsPaused() && item.owner == pollId;
}

void OVPollThread::RunItem(const RCPtr<OVPollItem> &item, bool timedOut)
{
    if (IsLogEnabled(logLevel))
        LOG_SCHEDULER(logLevel, "%s: Item %s %s; last run %s ago", name.c_str(), item->name.c_str(),
                      timedOut ? "timed out" : "signaled",
                      StringUtils::FormatDuration(item->timer.ElapsedSeconds(), kPollDecimals).c_str());
    completionEvent.Reset();
    runningItem = item.Get();
    Unlock();
    OVElapsedTimer run;
    const bool keep = item->Run(timedOut);
    const double seconds = run.ElapsedSeconds();
    Lock();
    runningItem = nullptr;
    completionEvent.Set();
    if (IsLogEnabled(logLevel))
        LOG_SCHEDULER(logLevel, "%s: Item %s took %s", name.c_str(), item->name.c_str(),
                      StringUtils::FormatDuration(seconds, kPollDecimals).c_str());
    if (item->owner != pollId)
        return;
    if (!keep) {
        RemoveItem(item, false);
        return;
    }
    if (Unlink(item.Get()))
        items.push_back(item);
    item->timer.Elapsed(OVTimer::kLap);
    dirtyEvent.Set();
}

} // namespace fodr
