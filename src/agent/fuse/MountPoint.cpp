#include "agent/fuse/MountPoint.h"

#include "platform/Volumes.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <vector>

namespace fodr::agent {
namespace {

constexpr size_t kNamedHolders = 3;

std::string ErrnoText(int error)
{
    char text[128];
    return strerror_r(error, text, sizeof(text));
}

std::string AbsolutePath(const std::string &path)
{
    char *resolved = realpath(path.c_str(), nullptr);
    std::string result = resolved ? resolved : path;
    free(resolved);
    return result;
}

bool LinkLeadsInto(const std::string &link, const std::string &folder)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(link.c_str(), target, sizeof(target));
    const std::string_view text(target, length < 0 ? 0 : static_cast<size_t>(length));
    return text.starts_with(folder) && (text.size() == folder.size() || text[folder.size()] == '/');
}

bool HoldsInto(const std::string &process, const std::string &folder)
{
    if (LinkLeadsInto(process + "/cwd", folder) || LinkLeadsInto(process + "/root", folder))
        return true;
    DIR *descriptors = opendir((process + "/fd").c_str());
    bool holds = false;
    while (const dirent *entry = descriptors && !holds ? readdir(descriptors) : nullptr)
        holds = LinkLeadsInto(process + "/fd/" + entry->d_name, folder);
    if (descriptors)
        closedir(descriptors);
    return holds;
}

// "vim (812), bash (790)".
std::string Holders(const std::string &folder)
{
    std::string names;
    size_t count = 0;
    DIR *processes = opendir("/proc");
    while (const dirent *entry = processes ? readdir(processes) : nullptr) {
        const std::string process = std::string("/proc/") + entry->d_name;
        if (atoi(entry->d_name) == 0 || !HoldsInto(process, folder) || ++count > kNamedHolders)
            continue;
        std::string command;
        std::getline(std::ifstream(process + "/comm") >> std::ws, command);
        names += (names.empty() ? "" : ", ") + command + " (" + entry->d_name + ")";
    }
    if (processes)
        closedir(processes);
    if (count > kNamedHolders)
        names += " and " + std::to_string(count - kNamedHolders) + " more";
    return names;
}

} // namespace

bool PrepareMountPoint(const std::string &path, std::string *error)
{
    if (platform::InspectMount(path) == platform::MountHealth::Dead) {
        const int failure = platform::UnmountOnce(path, true);
        if (failure != 0) {
            *error = path + ": a dead mount is there and couldn't be taken away: " + ErrnoText(failure) +
                     "; try: fusermount3 -uz " + path;
            return false;
        }
    }
    struct stat facts;
    if (stat(path.c_str(), &facts) != 0)
        *error = path + ": " + ErrnoText(errno) + "; the mount point has to be an existing directory";
    else if (!S_ISDIR(facts.st_mode))
        *error = path + ": is not a directory, so nothing can be mounted there";
    else if (platform::IsMounted(AbsolutePath(path), "fuse.fodr"))
        *error = path + ": another share is mounted there already; unmount it with: fusermount3 -u " + path;
    else if (access("/dev/fuse", R_OK | W_OK) != 0)
        *error =
            "/dev/fuse: " + ErrnoText(errno) + "; without it this machine can't mount (try: modprobe fuse)";
    else
        return true;
    return false;
}

UnmountOutcome Unmount(const std::string &path, std::string *remark)
{
    int failure = platform::UnmountOnce(path, false);
    // Not a mount point: somebody else was faster.
    if (failure == 0 || failure == EINVAL || failure == ENOENT)
        return UnmountOutcome::Unmounted;
    const std::string holders = Holders(path);
    *remark = path + ": still in use" + (holders.empty() ? "" : " by " + holders);
    failure = platform::UnmountOnce(path, true);
    if (failure != 0) {
        *remark += ", and couldn't be unmounted: " + ErrnoText(failure);
        return UnmountOutcome::Failed;
    }
    *remark += "; it was detached, and open files there give errors from now on";
    return UnmountOutcome::Detached;
}

} // namespace fodr::agent
