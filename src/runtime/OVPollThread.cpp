#include "runtime/OVPollThread.h"

#include "runtime/LogCall.h"
#include "runtime/OVTimer.h"
#include "runtime/UserDataMap.h"

#include <algorithm>

namespace fodr {

namespace {

// Added to an item's count while somebody waits for its end: no number of Enable calls makes it run.
constexpr int32_t kHeldBack = 1000000;

// Never destroyed: items ask for their threads at any time.
UserDataMap<WkPtr<OVPollThread>> &PollThreadMap()
{
    static auto *pollThreadMap = new UserDataMap<WkPtr<OVPollThread>>;
    return *pollThreadMap;
}

void *AsPointer(uint64_t pollId)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(pollId));
}

const char *TrueOrFalse(bool value)
{
    return value ? "TRUE" : "FALSE";
}

} // namespace

std::string PollDurationText(int64_t ms)
{
    return ms == -1 ? "INFINITE" : StringUtils::FormatDuration(static_cast<double>(ms) / 1000, kPollDecimals);
}

RCPtr<OVPollThread> FindPollThread(uint64_t pollId)
{
    return PollThreadMap().Find(pollId).Promote();
}

OVPollThread::OVPollThread(const std::string &threadName)
    : name(threadName), thread("OVPoll-" + threadName), logLevel(LOG_LEVEL_NEVER)
{
    pollId = PollThreadMap().Insert(WkPtr<OVPollThread>(this));
    LOG_DEBUG("%s: OVPollThread 0x%016llX", name.c_str(), PollIdForLog(pollId));
}

OVPollThread::~OVPollThread()
{
    LOG_DEBUG("%s: OVPollThread 0x%016llX", name.c_str(), PollIdForLog(pollId));
    RemoveAllItems(false);
    thread.Stop(0);
    PollThreadMap().Remove(pollId);
    pollId = 0;
}

// ---- The lock ----

void OVPollThread::Lock() NO_THREAD_SAFETY_ANALYSIS
{
    for (;;) {
        OVMutex *external = externalLock;
        OVMutex &active = external ? *external : lock;
        active.Acquire();
        if (external == externalLock)
            return;
        active.Release(); // replaced meanwhile
    }
}

void OVPollThread::Unlock() NO_THREAD_SAFETY_ANALYSIS
{
    OVMutex *external = externalLock;
    (external ? *external : lock).Release();
}

template <typename Action> void OVPollThread::WithoutLock(const Action &action) NO_THREAD_SAFETY_ANALYSIS
{
    OVMutex *external = externalLock;
    OVMutex &active = external ? *external : lock;
    int held = 0;
    while (active.Release())
        ++held;
    action();
    for (; held > 0; --held)
        Lock();
}

void OVPollThread::SetLock(OVMutex *mutex) NO_THREAD_SAFETY_ANALYSIS
{
    Lock();
    OVMutex *previous = externalLock.exchange(mutex);
    (previous ? *previous : lock).Release();
}

// ---- The items ----

bool OVPollThread::AddItem(const RCPtr<OVPollItem> &item, OVEvent *event, int32_t timeoutMS)
{
    const Guard guard(this);
    if (!item) {
        LOG_DEBUG("%s: item == NULL", name.c_str());
        return false;
    }
    if (item->owner != 0 && item->owner != pollId) {
        LOG_DEBUG("%s: Item %s already belongs to 0x%016llX", name.c_str(), item->name.c_str(),
                  PollIdForLog(item->owner));
        return false;
    }
    item->owner = pollId;
    item->SetEvent(event);
    item->SetTimeoutMS(timeoutMS, true);
    Unlink(item.Get());
    items.push_back(item);
    item->timer.Elapsed(OVTimer::kLap);
    dirtyEvent.Set();
    LOG_DEBUG("%s: Item %s added", name.c_str(), item->name.c_str());
    return true;
}

bool OVPollThread::RemoveItem(const RCPtr<OVPollItem> &item, bool wait)
{
    const RCPtr<OVPollItem> kept = item; // its end, if this is it, comes without the lock
    const Guard guard(this);
    if (!kept) {
        LOG_DEBUG("%s: item == NULL", name.c_str());
        return false;
    }
    if (kept->owner == 0)
        return false;
    if (kept->owner != pollId) {
        LOG_DEBUG("%s: Item %s belongs to 0x%016llX", name.c_str(), kept->name.c_str(),
                  PollIdForLog(kept->owner));
        return false;
    }
    if (wait)
        WaitForItemToComplete(kept);
    if (!Unlink(kept.Get())) {
        LOG_DEBUG("%s: Item %s not found", name.c_str(), kept->name.c_str());
        return false;
    }
    LOG_DEBUG("%s: Item %s removed", name.c_str(), kept->name.c_str());
    kept->owner = 0;
    dirtyEvent.Set();
    return true;
}

void OVPollThread::RemoveAllItems(bool wait)
{
    std::list<RCPtr<OVPollItem>> removed; // goes after the lock
    const Guard guard(this);
    if (items.empty())
        return;
    if (wait)
        WaitForItemToComplete(nullptr);
    removed.swap(items);
    for (const RCPtr<OVPollItem> &item : removed) {
        LOG_DEBUG("%s: Item %s removed", name.c_str(), item->name.c_str());
        item->owner = 0;
    }
    dirtyEvent.Set();
}

bool OVPollThread::Unlink(OVPollItem *item)
{
    const auto found =
        std::find_if(items.begin(), items.end(), [=](const auto &entry) { return entry.Get() == item; });
    if (found == items.end())
        return false;
    items.erase(found);
    return true;
}

void OVPollThread::WaitForItemToComplete(const RCPtr<OVPollItem> &item)
{
    const Guard guard(this);
    if (!runningItem || (item && item.Get() != runningItem) || thread.IsCurrentThread())
        return;
    LOG_DEBUG("%s: Waiting for %s to complete", name.c_str(), item ? item->name.c_str() : "all items");
    std::vector<RCPtr<OVPollItem>> heldBack(items.begin(), items.end());
    if (item)
        heldBack.assign(1, item);
    for (const RCPtr<OVPollItem> &one : heldBack)
        one->disabled += kHeldBack;
    OVEvent ended = thread.ThreadEvent();
    WithoutLock([&] {
        OVEvent::WaitForMultiple({&completionEvent, &ended}, false, kInfinite, false, false);
    });
    for (const RCPtr<OVPollItem> &one : heldBack)
        one->disabled -= kHeldBack;
}

// ---- The thread ----

void OVPollThread::StartScheduler()
{
    const Guard guard(this);
    if (!thread.Start(SchedulerThreadCB, AsPointer(pollId), 0))
        LOG_WARN("%s: Failed to start scheduler thread", name.c_str());
}

void OVPollThread::StopScheduler()
{
    const Guard guard(this);
    WithoutLock([&] { thread.Stop(); }); // which the scheduler needs the lock to see
}

bool OVPollThread::IsRunning() const
{
    OVEvent ended = thread.ThreadEvent();
    return ended.Wait(0) == OVEvent::kTimeout;
}

void OVPollThread::SetAlertable(bool alertableWaits)
{
    const Guard guard(this);
    alertable = alertableWaits;
    dirtyEvent.Set();
}

void OVPollThread::SetLogLevel(int32_t level)
{
    const Guard guard(this);
    logLevel = level;
}

void OVPollThread::LogAllItems(int32_t level)
{
    const Guard guard(this);
    if (!IsLogEnabled(level))
        return;
    LOG_AT(level, "%s - %d item%s\n", name.c_str(), static_cast<int>(items.size()),
           items.size() == 1 ? "" : "s");
    for (const RCPtr<OVPollItem> &item : items) {
        OVElapsedTimer timer = item->timer;
        LOG_AT(level, "   %s - timeout(%s)  elapsed(%s)  paused(%s)  event(%s)  disabled(%d)\n",
               item->name.c_str(), item->timeoutText.c_str(),
               StringUtils::FormatDuration(timer.ElapsedSeconds(), kPollDecimals).c_str(),
               TrueOrFalse(timer.IsPaused()), TrueOrFalse(item->event != nullptr), item->disabled);
    }
}

} // namespace fodr
