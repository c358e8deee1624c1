#include "platform/linux/DriveLetters.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "ntposix/NtName.h"
#include "platform/Volumes.h"
#include "platform/linux/BlockDevice.h"
#include "platform/linux/MountTable.h"

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string_view>

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
    std::lock_guard<std::mutex> guard(mutex);
    Update();
    const Place &place = Chosen()[index];
    return place.IsThere() ? place.path : std::string();
}

void DriveLetters::CopyPaths(Paths &copy)
{
    std::lock_guard<std::mutex> guard(mutex);
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

} // namespace fodr::platform
