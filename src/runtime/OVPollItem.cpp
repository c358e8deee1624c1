#include "runtime/OVPollItem.h"

#include "runtime/LogCall.h"
#include "runtime/OVPollThread.h"
#include "runtime/OVTimer.h"

namespace fodr {

OVPollItem::OVPollItem(const std::string &itemName) : name(itemName), timeoutText(PollDurationText(-1)) {}

bool OVPollItem::Run(bool)
{
    return false;
}

RCPtr<OVPollThread> OVPollItem::GetPollThread()
{
    const uint64_t id = owner;
    if (id == 0)
        return nullptr;
    RCPtr<OVPollThread> thread = FindPollThread(id);
    if (!thread) {
        LOG_WARN("%s: OVPollThread 0x%016llX has been deleted", name.c_str(), PollIdForLog(id));
        owner = 0;
    }
    return thread;
}

void OVPollItem::SetEvent(OVEvent *newEvent)
{
    const RCPtr<OVPollThread> thread = GetPollThread();
    const OVPollThread::Guard guard(thread.Get());
    if (event == newEvent)
        return;
    event = newEvent;
    guard.SetDirty();
    if (event)
        LOG_TRACE("%s: Item %s event set to 0x%lx", guard.Name(), name.c_str(),
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(event->Handle())));
    else
        LOG_TRACE("%s: Item %s event set to NULL", guard.Name(), name.c_str());
}

void OVPollItem::SetTimeoutMS(int32_t ms, bool reset)
{
    const RCPtr<OVPollThread> thread = GetPollThread();
    const OVPollThread::Guard guard(thread.Get());
    if (ms == timeoutMS && !reset)
        return;
    std::string note = "timer reset";
    if (reset)
        timer.ElapsedMS(OVTimer::kLap);
    else
        note = "timer at " + StringUtils::FormatDuration(timer.ElapsedSeconds(), kPollDecimals);
    timeoutText = PollDurationText(ms);
    timeoutMS = ms;
    guard.SetDirty();
    LOG_TRACE("%s: Item %s timeout set to %s (%s)", guard.Name(), name.c_str(), timeoutText.c_str(),
              note.c_str());
}

void OVPollItem::Disable(bool wait)
{
    const RCPtr<OVPollThread> thread = GetPollThread();
    const OVPollThread::Guard guard(thread.Get());
    if (wait && thread)
        thread->WaitForItemToComplete(this);
    if (++disabled != 1)
        return;
    guard.SetDirty();
    LOG_DEBUG("%s: Item %s disabled", guard.Name(), name.c_str());
}

bool OVPollItem::Enable()
{
    const RCPtr<OVPollThread> thread = GetPollThread();
    const OVPollThread::Guard guard(thread.Get());
    if (disabled-- == 1) {
        guard.SetDirty();
        LOG_DEBUG("%s: Item %s enabled", guard.Name(), name.c_str());
    }
    return disabled < 1;
}

void OVPollItem::Pause()
{
    const RCPtr<OVPollThread> thread = GetPollThread();
    const OVPollThread::Guard guard(thread.Get());
    timer.Elapsed(OVTimer::kPause);
    guard.SetDirty();
}

void OVPollItem::Resume()
{
    const RCPtr<OVPollThread> thread = GetPollThread();
    const OVPollThread::Guard guard(thread.Get());
    timer.Elapsed(OVTimer::kResume);
    guard.SetDirty();
}

bool OVPollItem::Remove(bool wait)
{
    const RCPtr<OVPollThread> thread = GetPollThread();
    return thread && thread->RemoveItem(this, wait);
}

} // namespace fodr
