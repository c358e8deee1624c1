#include "platform/VolumeEvents.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/DriveLetters.h"
#include "platform/linux/MountTable.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <libmount/libmount.h>
#include <optional>
#include <string>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <tuple>

namespace fodr::platform {

namespace {

// Tells mounts apart. The system uses the number of a mount that is gone again, so it isn't enough.
using MountKey = std::tuple<uint64_t, dev_t, std::string>;

MountKey KeyOf(const Mount &mount)
{
    return {mount.id, mount.device, mount.source};
}

// By letter, the mount that holds the drive's folder; nothing where no drive is.
using Drives = std::array<std::optional<MountKey>, DriveLetters::kCount>;

// A drive is there when its letter stands for a folder that is: the same question that opens and adds ask.
Drives LookAtDrives()
{
    Drives now;
    DriveLetters::Paths paths;
    DriveLetters::Get().CopyPaths(paths);
    const std::shared_ptr<const MountTable> mounts = MountTable::Current();
    for (size_t n = 0; n < DriveLetters::kCount; ++n) {
        struct stat facts {};
        if (paths[n].empty() || stat(paths[n].c_str(), &facts) != 0 || !S_ISDIR(facts.st_mode))
            continue;
        if (const Mount *holder = mounts->Holding(paths[n]))
            now[n] = KeyOf(*holder);
    }
    return now;
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
    own.drives = LookAtDrives();
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
    const Drives now = LookAtDrives();
    uint32_t removed = 0;
    uint32_t arrived = 0;
    for (size_t n = 0; n < DriveLetters::kCount; ++n) {
        const std::optional<MountKey> &before = state->drives[n];
        if (before == now[n])
            continue;
        if (before)
            removed |= 1U << n;
        if (now[n])
            arrived |= 1U << n;
    }
    state->drives = now;
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
