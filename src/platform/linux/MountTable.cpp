#include "platform/linux/MountTable.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <fcntl.h>
#include <poll.h>

#include <libmount/libmount.h>
#include <mutex>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace fodr::platform {

namespace {

constexpr char kMountInfo[] = "/proc/self/mountinfo";

std::string Text(const char *text)
{
    return text ? text : "";
}

// The open file reports a change of the table once to whoever polls it.
struct Watched {
    std::mutex mutex;
    int file = -1;
    std::shared_ptr<const MountTable> table;

    bool HasChanged()
    {
        if (file < 0)
            file = open(kMountInfo, O_RDONLY | O_CLOEXEC);
        pollfd entry{file, POLLPRI, 0};
        return !table || file < 0 || poll(&entry, 1, 0) != 0;
    }
};

} // namespace

std::shared_ptr<const MountTable> MountTable::Current()
{
    static Watched watched;
    std::lock_guard<std::mutex> guard(watched.mutex);
    if (watched.HasChanged()) {
        const auto fresh = std::make_shared<MountTable>();
        fresh->Read();
        watched.table = fresh;
    }
    return watched.table;
}

void MountTable::Read()
{
    libmnt_table *table = mnt_new_table_from_file(kMountInfo);
    libmnt_iter *iterator = mnt_new_iter(MNT_ITER_FORWARD);
    libmnt_fs *entry = nullptr;
    while (table && iterator && mnt_table_next_fs(table, iterator, &entry) == 0) {
        mounts.push_back({static_cast<uint64_t>(mnt_fs_get_id(entry)), mnt_fs_get_devno(entry),
                          Text(mnt_fs_get_root(entry)), Text(mnt_fs_get_target(entry)),
                          Text(mnt_fs_get_source(entry)), Text(mnt_fs_get_fstype(entry))});
    }
    mnt_free_iter(iterator);
    mnt_unref_table(table);
}

const Mount *MountTable::Holding(const std::string &path) const
{
    struct statx facts {};
    if (statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_TYPE | STATX_MNT_ID, &facts) != 0)
        return nullptr;
    const Mount *found = nullptr;
    for (const Mount &mount : mounts) {
        // Older kernels don't tell the mount; the file system then has to do.
        if (facts.stx_mask & STATX_MNT_ID ? mount.id == facts.stx_mnt_id
                                          : mount.device == makedev(facts.stx_dev_major, facts.stx_dev_minor))
            found = &mount;
    }
    return found;
}

const Mount *MountTable::At(const std::string &target) const
{
    const Mount *found = nullptr;
    for (const Mount &mount : mounts) {
        if (mount.target == target)
            found = &mount; // a later one lies on top
    }
    return found;
}

dev_t BlockDeviceOfMount(const Mount &mount)
{
    if (major(mount.device) != 0)
        return mount.device;
    // File systems over several devices have a number of their own, but name one of the devices.
    struct stat facts {};
    if (mount.source.starts_with("/dev/") && stat(mount.source.c_str(), &facts) == 0 &&
        S_ISBLK(facts.st_mode))
        return facts.st_rdev;
    return 0;
}

} // namespace fodr::platform
