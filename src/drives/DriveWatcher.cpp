#include "drives/DriveWatcher.h"

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

namespace {

// Holds the window for its thread.
struct ThreadStart {
    RCPtr<HiddenDriveWatcherWindow> window;

    static void Run(void *argument)
    {
        auto *self = static_cast<ThreadStart *>(argument);
        const RCPtr<HiddenDriveWatcherWindow> window = self->window;
        delete self;
        platform::SetCurrentThreadName("DriveWatcher");
        window->MessageLoopThread();
    }
};

OVEvent EndOf(platform::ThreadRecord *thread)
{
    return OVEvent(platform::DuplicateThreadHandle(thread), true);
}

} // namespace

std::unique_ptr<IDriveWatcher> IDriveWatcher::Create()
{
    return std::make_unique<DriveWatcherImpl>();
}

DriveWatcherImpl::DriveWatcherImpl(uint32_t stopTimeMS)
    : stopMS(stopTimeMS), window(new HiddenDriveWatcherWindow)
{}

// Not a Stop. But a thread that still runs, as it does when Stop timed out, shouldn't outlive the library: it
// is asked to end, and left to itself only if it doesn't.
DriveWatcherImpl::~DriveWatcherImpl()
{
    OVMutexLock guard(lock);
    if (!thread)
        return;
    window->Close();
    if (EndOf(thread).Wait(stopMS) == OVEvent::kSignalled)
        platform::JoinThread(thread);
    else
        platform::DetachThread(thread);
    // A thread that goes on can't reach a subscriber that is gone.
    window->Detach();
}

bool DriveWatcherImpl::Start(IDeviceStateSubscriber *subscriber)
{
    FODR_TRACE_FUNCTION();
    OVMutexLock guard(lock);
    if (started) {
        LOG_WARN("Duplicate start request: already started\n");
        return true;
    }
    if (!CreateWindowAndMessageLoopThread(subscriber, &thread))
        return false;
    started = true;
    LOG_DEBUG("Drive watcher started\n");
    return true;
}

bool DriveWatcherImpl::Stop()
{
    FODR_TRACE_FUNCTION();
    OVMutexLock guard(lock);
    if (!started)
        return true;
    if (!thread) {
        LOG_ERROR("Hidden window thread not started\n");
        return false;
    }
    if (window->IsWindow())
        window->Close();
    switch (EndOf(thread).Wait(stopMS)) {
    case OVEvent::kSignalled:
        platform::JoinThread(thread);
        thread = nullptr;
        started = false;
        LOG_DEBUG("Drive watcher stopped\n");
        return true;
    case OVEvent::kTimeout:
        LOG_ERROR("Wait timed out\n");
        return false;
    default:
        LOG_ERROR("Wait failed\n");
        return false;
    }
}

bool DriveWatcherImpl::CreateWindowAndMessageLoopThread(IDeviceStateSubscriber *subscriber,
                                                        platform::ThreadRecord **threadOut)
{
    FODR_TRACE_FUNCTION();
    if (!subscriber || !threadOut) {
        LOG_ERROR("Invalid subscriber\n");
        return false;
    }
    if (!window->windowCreatedEvent.IsValid()) {
        LOG_ERROR("Initialization error\n");
        return false;
    }
    *threadOut = nullptr;
    window->Attach(subscriber);
    auto *start = new ThreadStart{window};
    platform::ThreadRecord *created = platform::StartThread(ThreadStart::Run, start);
    if (!created) {
        delete start;
        LOG_ERROR("Failed to create thread, error = %d\n", static_cast<int>(platform::LastSystemError()));
        return false;
    }
    if (!AwaitWindow(created)) {
        platform::DetachThread(created);
        window->Detach();
        return false;
    }
    *threadOut = created;
    return true;
}

bool DriveWatcherImpl::AwaitWindow(platform::ThreadRecord *created)
{
    FODR_TRACE_FUNCTION();
    OVEvent end = EndOf(created);
    switch (OVEvent::WaitForMultiple({&window->windowCreatedEvent, &end}, false, kWaitMS, false, false)) {
    case 0:
        return true;
    case 1:
        LOG_ERROR("Thread exited too early\n");
        return false;
    case OVEvent::kTimeout:
        LOG_ERROR("Wait timed out\n");
        return false;
    default:
        LOG_ERROR("Wait failed\n");
        return false;
    }
}

} // namespace fodr
