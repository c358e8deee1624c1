#include "agent/fuse/MountPoint.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

extern char **environ;

namespace fodr::agent {
namespace {

constexpr size_t kNamedHolders = 3;

std::string ErrnoText(int error)
{
    char text[128];
    return strerror_r(error, text, sizeof(text));
}

bool IsStale(const std::string &path)
{
    struct stat facts;
    return stat(path.c_str(), &facts) != 0 && errno == ENOTCONN;
}

// Octal escapes of mountinfo(5).
std::string Unescape(const std::string &text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            result += static_cast<char>(strtol(text.substr(i + 1, 3).c_str(), nullptr, 8));
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

// Whether a file system of ours is mounted just there.
bool IsMountedHere(const std::string &absolutePath)
{
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point;
        fields >> id >> parent >> device >> root >> point;
        const size_t separator = line.find(" - ");
        if (Unescape(point) == absolutePath && separator != std::string::npos &&
            line.compare(separator + 3, 9, "fuse.fodr") == 0)
            return true;
    }
    return false;
}

std::string AbsolutePath(const std::string &path)
{
    char *resolved = realpath(path.c_str(), nullptr);
    std::string result = resolved ? resolved : path;
    free(resolved);
    return result;
}

// An errno as umount2 gives it. Ordinary users have a helper of the system for it.
int UnmountOnce(const std::string &path, bool lazily)
{
    if (umount2(path.c_str(), lazily ? MNT_DETACH | UMOUNT_NOFOLLOW : UMOUNT_NOFOLLOW) == 0)
        return 0;
    if (errno != EPERM)
        return errno;
    std::vector<std::string> words = {"fusermount3", "-u", "-q", "--", path};
    if (lazily)
        words.insert(words.begin() + 1, "-z");
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t child = 0;
    int status = 0;
    if (const int error = posix_spawnp(&child, words[0].c_str(), nullptr, nullptr, arguments.data(), environ))
        return error;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : EBUSY;
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
    if (IsStale(path)) {
        const int failure = UnmountOnce(path, true);
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
    else if (IsMountedHere(AbsolutePath(path)))
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
    int failure = UnmountOnce(path, false);
    // Not a mount point: somebody else was faster.
    if (failure == 0 || failure == EINVAL || failure == ENOENT)
        return UnmountOutcome::Unmounted;
    const std::string holders = Holders(path);
    *remark = path + ": still in use" + (holders.empty() ? "" : " by " + holders);
    failure = UnmountOnce(path, true);
    if (failure != 0) {
        *remark += ", and couldn't be unmounted: " + ErrnoText(failure);
        return UnmountOutcome::Failed;
    }
    *remark += "; it was detached, and open files there give errors from now on";
    return UnmountOutcome::Detached;
}

} // namespace fodr::agent
