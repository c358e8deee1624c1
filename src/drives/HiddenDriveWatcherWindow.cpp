#include "drives/HiddenDriveWatcherWindow.h"

#include "drives/IDeviceStateSubscriber.h"
#include "platform/SystemError.h"
#include "runtime/LogCall.h"

namespace fodr {

namespace {

constexpr int kLetters = 26;

// One call a letter, from A upwards.
template <typename Call> void ForEachLetter(uint32_t unitMask, Call call)
{
    for (int n = 0; n < kLetters && unitMask >> n != 0; ++n) {
        if (unitMask >> n & 1)
            call(static_cast<char>('A' + n));
    }
}

} // namespace

HiddenDriveWatcherWindow::HiddenDriveWatcherWindow() : windowCreatedEvent(false, false)
{
    if (!windowCreatedEvent.IsValid())
        LOG_ERROR("Failed to create event, error = %d\n", static_cast<int>(platform::LastSystemError()));
}

void HiddenDriveWatcherWindow::MessageLoopThread()
{
    if (!events.Open())
        LOG_ERROR("Failed to create window\n");
    // In either case: a watcher without a window counts as started and hears nothing.
    if (!windowCreatedEvent.Set())
        LOG_ERROR("Failed to set window created event, error = %d\n",
                  static_cast<int>(platform::LastSystemError()));
    if (!events.Run(*this))
        LOG_ERROR("Error in message loop\n");
    LOG_DEBUG("Thread exit\n");
}

void HiddenDriveWatcherWindow::OnVolumesArrived(uint32_t unitMask)
{
    ForEachLetter(unitMask, [this](char letter) {
        LOG_DEBUG("Drive available: %c\n", letter);
        OVMutexLock held(subscriberLock);
        if (subscriber && !subscriber->OnDeviceAvailable(letter))
            LOG_ERROR("Subscriber failed to process drive addition\n");
    });
}

void HiddenDriveWatcherWindow::OnVolumesRemoved(uint32_t unitMask)
{
    ForEachLetter(unitMask, [this](char letter) {
        LOG_DEBUG("Drive unavailable: %c\n", letter);
        OVMutexLock held(subscriberLock);
        if (subscriber && !subscriber->OnDeviceUnavailable(letter))
            LOG_ERROR("Subscriber failed to process drive removal\n");
    });
}

void HiddenDriveWatcherWindow::OnClose()
{
    Detach();
}

void HiddenDriveWatcherWindow::Attach(IDeviceStateSubscriber *newSubscriber)
{
    OVMutexLock held(subscriberLock);
    subscriber = newSubscriber;
}

void HiddenDriveWatcherWindow::Detach()
{
    Attach(nullptr);
}

} // namespace fodr
