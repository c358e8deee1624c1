#include "runtime/OVEvent.h"

#include "platform/Threads.h"

#include <array>

namespace fodr {

class OVEventData : public RCObject {
public:
    OVEventData(platform::Waitable waitable, bool owned) : handle(waitable), ownsHandle(owned) {}
    ~OVEventData() override
    {
        if (ownsHandle && handle)
            platform::CloseWaitable(handle);
    }

    const platform::Waitable handle;
    const bool ownsHandle;
};

namespace {

int32_t Negative(platform::WaitStatus status)
{
    switch (status) {
    case platform::WaitStatus::TimedOut:
        return OVEvent::kTimeout;
    case platform::WaitStatus::Alerted:
        return OVEvent::kAlerted;
    default:
        return OVEvent::kFailed;
    }
}

} // namespace

OVEvent::OVEvent() = default;

OVEvent::OVEvent(bool manualReset, bool initiallySet, const std::string &name)
    : OVEvent(platform::CreateEventObject(manualReset, initiallySet, name.empty() ? nullptr : name.c_str()),
              true)
{}

OVEvent::OVEvent(void *handle, bool owns) : data(new OVEventData(handle, owns)) {}

OVEvent::OVEvent(const OVEvent &other) : RCObject(), data(other.data) {}

OVEvent &OVEvent::operator=(const OVEvent &other)
{
    if (this != &other)
        data = other.data;
    return *this;
}

OVEvent::~OVEvent() = default;

void *OVEvent::Handle() const
{
    RCPtr<OVEventData> held = data;
    return held ? held->handle : nullptr;
}

bool OVEvent::IsValid() const
{
    return Handle() != nullptr;
}

bool OVEvent::Set()
{
    RCPtr<OVEventData> held = data;
    return held && platform::SetEventObject(held->handle);
}

bool OVEvent::Reset()
{
    RCPtr<OVEventData> held = data;
    return held && platform::ResetEventObject(held->handle);
}

int32_t OVEvent::Wait(uint32_t timeoutMS)
{
    // The reference ends before the wait: an event that is waited for can still be closed.
    const platform::Waitable handle = Handle();
    if (!handle)
        return kFailed;
    const platform::WaitResult result = platform::WaitForWaitables(&handle, 1, timeoutMS);
    return result.status == platform::WaitStatus::Object     ? kSignalled
           : result.status == platform::WaitStatus::TimedOut ? kTimeout
                                                             : kFailed;
}

int32_t OVEvent::WaitForMultiple(const std::vector<OVEvent *> &events, bool waitAll, uint32_t timeoutMS,
                                 bool messagesToo, bool alertable)
{
    if (events.size() > platform::kMaximumWaitables)
        return kFailed;
    std::array<platform::Waitable, platform::kMaximumWaitables> handles;
    for (size_t i = 0; i < events.size(); ++i)
        handles[i] = events[i] ? events[i]->Handle() : nullptr;
    const platform::WaitOptions options{
        .waitAll = waitAll, .messagesToo = messagesToo, .alertable = alertable};
    const platform::WaitResult result =
        platform::WaitForWaitables(handles.data(), events.size(), timeoutMS, options);
    if (result.status == platform::WaitStatus::Object)
        return static_cast<int32_t>(result.index);
    if (result.status == platform::WaitStatus::Message)
        return static_cast<int32_t>(events.size());
    return Negative(result.status);
}

} // namespace fodr
