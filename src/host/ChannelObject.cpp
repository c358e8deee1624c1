#include "host/ChannelObject.h"

#include "host/CallGate.h"
#include "host/HostChannel.h"

namespace fodr::host {

void ChannelObject::NotifyState()
{
    const GatedCall call(gate);
    const CallScope scope(channel);
    if (call && sink.OnObjectStateChanged != nullptr)
        sink.OnObjectStateChanged(userData);
}

bool ChannelObject::Deliver(const transport::Message &frame)
{
    const GatedCall call(gate);
    if (!call || sink.OnInvoke == nullptr)
        return false;
    channel->ShowBlocks(frame);
    const CallScope scope(channel);
    HostMessage message(frame);
    sink.OnInvoke(userData, &message);
    return true;
}

void ChannelObject::Connect(uint32_t peerNumber, uint32_t peerOptions, std::shared_ptr<ChannelLink> connected)
{
    const MutexLock held(lock);
    number = peerNumber;
    options = peerOptions;
    link = std::move(connected);
}

void ChannelObject::MoveTo(std::shared_ptr<ChannelLink> connected)
{
    const MutexLock held(lock);
    link.swap(connected);
}

uint32_t ChannelObject::Number() const
{
    const MutexLock held(lock);
    return number;
}

bool ChannelObject::Options(uint32_t *value) const
{
    const MutexLock held(lock);
    *value = options;
    return link != nullptr;
}

bool ChannelObject::Invoke(const HostMessage &message, const MessageSink &report, void *reportUserData)
{
    transport::Message frame;
    std::shared_ptr<ChannelLink> used;
    const bool reported = !message.IsPost() && (report.OnMsgDone != nullptr || report.OnMsgAbort != nullptr);
    if (!message.ToFrame(&frame))
        return false;
    {
        const MutexLock held(lock);
        used = link;
        frame.object = number;
        // The answer may come before Send returns.
        if (used != nullptr && reported)
            reports[frame.requestId] = {report, reportUserData};
    }
    if (used == nullptr)
        return false;
    channel->ShowBlocks(frame);
    if (used->Connection().Send(frame))
        return true;
    Report unsent;
    // Aborted meanwhile: that is the answer to a message that counts as sent.
    return reported && !TakeReport(frame.requestId, &unsent);
}

bool ChannelObject::TakeReport(uint32_t requestId, Report *report)
{
    const MutexLock held(lock);
    const auto at = reports.find(requestId);
    if (at == reports.end())
        return false;
    *report = at->second;
    reports.erase(at);
    return true;
}

void ChannelObject::ReportDone(uint32_t requestId)
{
    Report report;
    const GatedCall call(gate);
    if (!call || !TakeReport(requestId, &report) || report.sink.OnMsgDone == nullptr)
        return;
    const CallScope scope(channel);
    transport::Message nothing;
    nothing.requestId = requestId;
    HostMessage answer(nothing);
    report.sink.OnMsgDone(report.userData, requestId, &answer);
}

void ChannelObject::ReportAbort(uint32_t requestId, bool byUser, uint32_t reason)
{
    Report report;
    const GatedCall call(gate);
    if (!call || !TakeReport(requestId, &report) || report.sink.OnMsgAbort == nullptr)
        return;
    const CallScope scope(channel);
    report.sink.OnMsgAbort(report.userData, requestId, byUser, reason);
}

void ChannelObject::Disconnect(bool byUser, uint32_t reason)
{
    std::vector<uint32_t> unanswered;
    std::shared_ptr<ChannelLink> gone; // ends, if it does, outside the lock
    {
        const MutexLock held(lock);
        gone.swap(link);
        for (const auto &[requestId, report] : reports)
            unanswered.push_back(requestId);
    }
    state = OBJECT_DISCONNECTED;
    for (const uint32_t requestId : unanswered)
        ReportAbort(requestId, byUser, reason);
}

void ChannelObject::Retire()
{
    Disconnect(true, 0);
    gate.CloseAndWait();
}

} // namespace fodr::host
