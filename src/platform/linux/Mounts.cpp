#include "platform/Mounts.h"

#include "platform/ChildProcess.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>

namespace fodr::platform {
namespace {

constexpr unsigned kFuseMajor = 10; // Documentation/admin-guide/devices.txt: 10, 229
constexpr unsigned kFuseMinor = 229;

// The table writes blanks and the like as octal escapes.
std::string Unescape(const std::string &text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            plain.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8)));
            i += 3;
        } else {
            plain.push_back(text[i]);
        }
    }
    return plain;
}

// The type of what is mounted there last, empty when nothing is. Doesn't touch the path itself, which may
// hang when nobody serves it.
std::string MountType(const std::string &path)
{
    std::ifstream table("/proc/self/mounts");
    std::string device, place, type, rest, found;
    while (table >> device >> place >> type && std::getline(table, rest)) {
        if (Unescape(place) == path)
            found = type;
    }
    return found;
}

bool IsMountPoint(const std::string &path)
{
    return !MountType(path).empty();
}

} // namespace

MountHealth InspectMount(const std::string &path)
{
    struct stat facts {};
    const bool dead = stat(path.c_str(), &facts) != 0 && (errno == ENOTCONN || errno == ECONNABORTED);
    if (dead)
        return MountHealth::Dead;
    return IsMountPoint(path) ? MountHealth::Alive : MountHealth::None;
}

MountHealth InspectEndingMount(const std::string &path, const std::string &ownType, int timeoutMS)
{
    constexpr int kStepMS = 20;
    MountHealth state = InspectMount(path);
    for (int waited = 0;
         state == MountHealth::Alive && waited < timeoutMS && MountType(path).ends_with(ownType);
         waited += kStepMS) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kStepMS));
        state = InspectMount(path);
    }
    return state;
}

bool DetachMount(const std::string &path)
{
    for (int layer = 0; layer < 16 && IsMountPoint(path); ++layer) {
        if (umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0)
            continue;
        ChildOptions options{.arguments = {"fusermount3", "-u", "-z", "--", path},
                             .environment = {},
                             .onErrorLine = [](const std::string &) {}};
        const auto helper = ChildProcess::Start(options, nullptr);
        const auto result = helper ? helper->Wait(10000) : std::nullopt;
        if (!result || result->bySignal || result->code != 0)
            break;
    }
    return !IsMountPoint(path);
}

std::string MountProblem()
{
    struct stat facts {};
    if (stat("/dev/fuse", &facts) != 0 || !S_ISCHR(facts.st_mode) || major(facts.st_rdev) != kFuseMajor ||
        minor(facts.st_rdev) != kFuseMinor)
        return "FUSE is missing here: load the kernel module fuse, or give this container /dev/fuse";
    const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return "you may not open /dev/fuse: ask for access to it";
    close(fd);
    if (geteuid() != 0 && access("/usr/bin/fusermount3", X_OK) != 0 && access("/bin/fusermount3", X_OK) != 0)
        return "fusermount3 is missing: install the package fuse3";
    return {};
}

} // namespace fodr::platform
