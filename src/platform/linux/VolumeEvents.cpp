#include "platform/VolumeEvents.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/DriveLetters.h"
#include "platform/linux/MountTable.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <libmount/libmount.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

namespace fodr::platform {

namespace {

// What stands at each letter.
struct Drive {
    bool isPresent = false;
    bool hadMount = false; // at some time: the bare folder is then a drive without a medium
    uint64_t mount = 0;    // at exactly the letter's path
};
using Drives = Drive[DriveLetters::kCount];

bool IsFolder(const std::string &path)
{
    struct stat facts {};
    return stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

void LookAtDrives(Drives &drives)
{
    DriveLetters::Paths paths;
    DriveLetters::Get().CopyPaths(paths);
    const std::shared_ptr<const MountTable> mounts = MountTable::Current();
    for (int n = 0; n < DriveLetters::kCount; ++n) {
        Drive &drive = drives[n];
        const Mount *mount = paths[n].empty() ? nullptr : mounts->At(paths[n]);
        drive.mount = mount ? mount->id : 0;
        drive.hadMount = drive.hadMount || mount;
        drive.isPresent = mount || (!paths[n].empty() && !drive.hadMount && IsFolder(paths[n]));
    }
}

} // namespace

struct VolumeEvents::State {
    ~State()
    {
        CloseMonitor();
        if (endEvent >= 0)
            close(endEvent);
    }
    void CloseMonitor()
    {
        isOpen = false;
        mnt_unref_monitor(monitor);
        monitor = nullptr;
    }

    std::atomic<bool> isOpen{false};
    int endEvent = -1; // kept from construction on, since the end may be asked for at any time
    libmnt_monitor *monitor = nullptr;
    Drives drives;
};

VolumeEvents::VolumeEvents() : state(std::make_unique<State>())
{
    state->endEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

VolumeEvents::~VolumeEvents() = default;

bool VolumeEvents::Open()
{
    State &own = *state;
    own.CloseMonitor();
    if (own.endEvent < 0)
        own.endEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    own.monitor = mnt_new_monitor();
    if (own.endEvent < 0 || !own.monitor || mnt_monitor_enable_kernel(own.monitor, 1) != 0 ||
        mnt_monitor_get_fd(own.monitor) < 0) {
        own.CloseMonitor();
        return false;
    }
    LookAtDrives(own.drives);
    own.isOpen = true;
    return true;
}

bool VolumeEvents::IsOpen() const
{
    return state->isOpen;
}

bool VolumeEvents::Run(IVolumeEventSink &sink)
{
    State &own = *state;
    pollfd entries[2] = {{own.endEvent, POLLIN, 0},
                         {own.monitor ? mnt_monitor_get_fd(own.monitor) : -1, POLLIN, 0}};
    for (;;) {
        if (poll(entries, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (entries[0].revents != 0) {
            eventfd_t ignored = 0;
            eventfd_read(own.endEvent, &ignored);
            sink.OnClose();
            own.CloseMonitor();
            return true;
        }
        if (entries[1].revents & (POLLERR | POLLNVAL))
            return false;
        if (mnt_monitor_event_cleanup(own.monitor) < 0)
            return false;
        TellChanges(sink);
    }
}

// A medium that was replaced went first.
void VolumeEvents::TellChanges(IVolumeEventSink &sink)
{
    Drives now;
    std::copy_n(state->drives, DriveLetters::kCount, now);
    LookAtDrives(now);
    uint32_t removed = 0;
    uint32_t arrived = 0;
    for (int n = 0; n < DriveLetters::kCount; ++n) {
        const Drive &before = state->drives[n];
        const bool isOther = before.mount != now[n].mount;
        if (before.isPresent && (!now[n].isPresent || isOther))
            removed |= 1U << n;
        if (now[n].isPresent && (!before.isPresent || isOther))
            arrived |= 1U << n;
    }
    std::copy_n(now, DriveLetters::kCount, state->drives);
    if (removed != 0)
        sink.OnVolumesRemoved(removed);
    if (arrived != 0)
        sink.OnVolumesArrived(arrived);
}

void VolumeEvents::RequestEnd()
{
    eventfd_write(state->endEvent, 1);
}

} // namespace fodr::platform
