#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/MountTable.h"

#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"
#include "platform/ChildProcess.h"
#include "platform/Volumes.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <libmount/libmount.h>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>

namespace fodr::platform {

namespace {

constexpr char kMountInfo[] = "/proc/self/mountinfo";

std::string Text(const char *text)
{
    return text ? text : "";
}

// The open file reports a change of the table once to whoever polls it.
struct Watched {
    Mutex mutex;
    Fd file GUARDED_BY(mutex);
    std::shared_ptr<const MountTable> table GUARDED_BY(mutex);

    bool HasChanged() REQUIRES(mutex)
    {
        if (!file)
            file.Reset(open(kMountInfo, O_RDONLY | O_CLOEXEC));
        pollfd entry{file.Get(), POLLPRI, 0};
        return !table || !file || poll(&entry, 1, 0) != 0;
    }
};

} // namespace

std::shared_ptr<const MountTable> MountTable::Current()
{
    static Watched watched;
    const MutexLock guard(watched.mutex);
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

namespace {

constexpr unsigned kFuseMajor = 10; // Documentation/admin-guide/devices.txt: 10, 229
constexpr unsigned kFuseMinor = 229;
constexpr int kHelperMS = 10000; // for fusermount to end

// The type of what is mounted there last, empty when nothing is. Doesn't touch the path itself, which may
// hang when nobody serves it.
std::string MountType(const std::string &path)
{
    const std::shared_ptr<const MountTable> table = MountTable::Current();
    const Mount *mount = table->At(path);
    return mount ? mount->type : std::string();
}

} // namespace

MountHealth InspectMount(const std::string &path)
{
    struct stat facts {};
    const bool dead = stat(path.c_str(), &facts) != 0 && (errno == ENOTCONN || errno == ECONNABORTED);
    if (dead)
        return MountHealth::Dead;
    return !MountType(path).empty() ? MountHealth::Alive : MountHealth::None;
}

MountHealth InspectEndingMount(const std::string &path, const std::string &ownType, int timeoutMS)
{
    constexpr int kStepMS = 20;
    MountHealth state = InspectMount(path);
    // Asked again and again: a mount that dies stays in the table, and nothing tells of it.
    for (int waited = 0;
         state == MountHealth::Alive && waited < timeoutMS && MountType(path).ends_with(ownType);
         waited += kStepMS) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kStepMS));
        state = InspectMount(path);
    }
    return state;
}

bool IsMounted(const std::string &path, const std::string &type)
{
    const std::shared_ptr<const MountTable> table = MountTable::Current();
    return std::any_of(table->Mounts().begin(), table->Mounts().end(), [&](const Mount &mount) {
        return mount.target == path && mount.type.starts_with(type);
    });
}

std::vector<std::string> UnmountCommand(const std::string &path, bool lazily)
{
    std::vector<std::string> words = {"fusermount3", "-u", "--", path};
    if (lazily)
        words.insert(words.begin() + 2, "-z");
    return words;
}

int UnmountOnce(const std::string &path, bool lazily)
{
    if (umount2(path.c_str(), lazily ? MNT_DETACH | UMOUNT_NOFOLLOW : UMOUNT_NOFOLLOW) == 0)
        return 0;
    if (errno != EPERM)
        return errno;
    ChildOptions options;
    options.arguments = UnmountCommand(path, lazily);
    options.onErrorLine = [](const std::string &) {};
    const auto helper = ChildProcess::Start(options, nullptr);
    const auto result = helper ? helper->Wait(kHelperMS) : std::nullopt;
    return result && !result->bySignal && result->code == 0 ? 0 : EBUSY;
}

bool DetachMount(const std::string &path)
{
    for (int layer = 0; layer < 16 && !MountType(path).empty(); ++layer) {
        if (UnmountOnce(path, true) != 0)
            break;
    }
    return MountType(path).empty();
}

std::string MountProblem()
{
    struct stat facts {};
    if (stat("/dev/fuse", &facts) != 0 || !S_ISCHR(facts.st_mode) || major(facts.st_rdev) != kFuseMajor ||
        minor(facts.st_rdev) != kFuseMinor)
        return "FUSE is missing here: load the kernel module fuse, or give this container /dev/fuse";
    if (!Fd(open("/dev/fuse", O_RDWR | O_CLOEXEC)))
        return "you may not open /dev/fuse: ask for access to it";
    if (geteuid() != 0 && access("/usr/bin/fusermount3", X_OK) != 0 && access("/bin/fusermount3", X_OK) != 0)
        return "fusermount3 is missing: install the package fuse3";
    return {};
}

} // namespace fodr::platform
