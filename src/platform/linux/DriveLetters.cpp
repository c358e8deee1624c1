#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/DriveLetters.h"

#include "lib/misc/Mutex.h"
#include "ntposix/NtName.h"
#include "platform/Volumes.h"
#include "platform/linux/BlockDevice.h"
#include "platform/linux/MountTable.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <libmount/libmount.h>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <tuple>

namespace fodr::platform {

namespace {

constexpr int kRootDrive = 'C' - 'A';

// The file calls know the same letters.
[[maybe_unused]] const bool lettersAreShared = [] {
    ntposix::SetDriveLetterResolver(LocalPathOfDriveLetter);
    return true;
}();

// -1 for what is no letter.
int IndexOf(char letter)
{
    if (letter >= 'A' && letter <= 'Z')
        return letter - 'A';
    return letter >= 'a' && letter <= 'z' ? letter - 'a' : -1;
}

// The part of a file system that is mounted as a whole, and not a folder of it once more.
bool IsWholeFileSystem(const Mount &mount)
{
    return mount.root == "/" || mount.type == "btrfs";
}

} // namespace

std::string LocalPathOfDriveLetter(char letter)
{
    return DriveLetters::Get().PathOf(letter);
}

DriveLetters &DriveLetters::Get()
{
    static auto *letters = new DriveLetters; // for threads that outlive the destructors of the process
    return *letters;
}

std::string DriveLetters::PathOf(char letter)
{
    const int index = IndexOf(letter);
    if (index < 0)
        return {};
    const MutexLock guard(mutex);
    Update();
    const Place &place = Chosen()[index];
    return place.IsThere() ? place.path : std::string();
}

void DriveLetters::CopyPaths(Paths &copy)
{
    const MutexLock guard(mutex);
    Update();
    std::transform(Chosen(), Chosen() + kCount, copy,
                   [](const Place &place) { return place.IsThere() ? place.path : std::string(); });
}

void DriveLetters::Update()
{
    const char *now = std::getenv("FODR_DRIVES");
    const std::shared_ptr<const MountTable> mounts = MountTable::Current();
    const bool isOther = now ? !variable || *variable != now : variable.has_value();
    if (mounts == mountsSeen && !isOther)
        return;
    mountsSeen = mounts;
    if (now) {
        if (isOther)
            ParseTable(now);
        variable = now;
    } else {
        variable.reset();
        media[kRootDrive].path = "/";
        AddMedia(*mounts);
    }
    for (Place &place : Chosen()) {
        place.isMounted = mounts->At(place.path) != nullptr;
        place.hasMedium = place.hasMedium || place.isMounted;
    }
}

// What isn't of the form is left out.
void DriveLetters::ParseTable(const std::string &text)
{
    std::fill_n(table, kCount, Place());
    std::string_view rest = text;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find(';'), rest.size());
        std::string_view entry = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (entry.size() < 3 || IndexOf(entry[0]) < 0 || entry[1] != '=' || entry[2] != '/')
            continue;
        const int index = IndexOf(entry[0]);
        entry.remove_prefix(2);
        while (entry.size() > 1 && entry.back() == '/')
            entry.remove_suffix(1);
        table[index].path = entry;
    }
}

void DriveLetters::AddMedia(const MountTable &mounts)
{
    // A system that runs from a stick isn't a medium that comes and goes.
    const Mount *root = mounts.At("/");
    const std::optional<BlockDevice> system =
        root ? FindBlockDevice(BlockDeviceOfMount(*root)) : std::optional<BlockDevice>();
    std::set<dev_t> seen; // a device that is mounted twice has one letter
    for (const Mount &mount : mounts.Mounts()) {
        const dev_t device = BlockDeviceOfMount(mount);
        if (device == 0 || !IsWholeFileSystem(mount) || !seen.insert(device).second)
            continue;
        const std::optional<BlockDevice> found = FindBlockDevice(device);
        if (!found || !found->isRemovable || (system && system->disk == found->disk) ||
            FindMedium(media, mount.target) != media + kCount)
            continue;
        Place *free = FindMedium(media + kRootDrive + 1, "");
        if (free != media + kCount)
            free->path = mount.target;
    }
}

DriveLetters::Place *DriveLetters::FindMedium(Place *begin, const std::string &path)
{
    return std::find_if(begin, media + kCount, [&path](const Place &place) { return place.path == path; });
}

namespace {

// Tells mounts apart. The system uses the number of a mount that is gone again, so it isn't enough.
using MountKey = std::tuple<uint64_t, dev_t, std::string>;

MountKey KeyOf(const Mount &mount)
{
    return {mount.id, mount.device, mount.source};
}

// By letter, the mount that holds the drive's folder; nothing where no drive is.
using Drives = std::array<std::optional<MountKey>, DriveLetters::kCount>;

// A drive is there when its letter stands for an existing folder; opens and adds ask the same.
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
    ~State() { CloseMonitor(); }
    void CloseMonitor()
    {
        isOpen = false;
        mnt_unref_monitor(monitor);
        monitor = nullptr;
    }

    std::atomic<bool> isOpen{false};
    Fd endEvent; // kept from construction on, since the end may be asked for at any time
    libmnt_monitor *monitor = nullptr;
    Drives drives;
};

VolumeEvents::VolumeEvents() : state(std::make_unique<State>())
{
    state->endEvent.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

VolumeEvents::~VolumeEvents() = default;

bool VolumeEvents::Open()
{
    State &own = *state;
    own.CloseMonitor();
    if (!own.endEvent)
        own.endEvent.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    own.monitor = mnt_new_monitor();
    if (!own.endEvent || !own.monitor || mnt_monitor_enable_kernel(own.monitor, 1) != 0 ||
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
    pollfd entries[2] = {{own.endEvent.Get(), POLLIN, 0},
                         {own.monitor ? mnt_monitor_get_fd(own.monitor) : -1, POLLIN, 0}};
    for (;;) {
        if (poll(entries, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (entries[0].revents != 0) {
            eventfd_t ignored = 0;
            eventfd_read(own.endEvent.Get(), &ignored);
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
    eventfd_write(state->endEvent.Get(), 1);
}

} // namespace fodr::platform
