#include "agent/fuse/FuseSession.h"

#include "agent/fuse/Fuse.h"
#include "lib/misc/Fd.h"
#include "platform/Volumes.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <linux/fuse.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <vector>

namespace fodr::agent {

namespace {

constexpr size_t kNamedHolders = 3;

std::string ErrnoText(int error)
{
    char text[128];
    return strerror_r(error, text, sizeof(text));
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

std::string AbsolutePath(const std::string &path)
{
    char *resolved = realpath(path.c_str(), nullptr);
    std::string result = resolved ? resolved : path;
    free(resolved);
    return result;
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

namespace {

// What is written to the standard error stream for a while, the lines of helper programs included.
// From its making on the stream goes to memory. One at a time; what other threads write meanwhile is kept
// too.
class ErrorLines {
public:
    ErrorLines();
    ~ErrorLines() { Take(); }
    ErrorLines(const ErrorLines &) = delete;
    ErrorLines &operator=(const ErrorLines &) = delete;

    // Gives the stream back and shows there what has come. The last line of it, without its writer's name.
    std::string Take();

private:
    Fd original; // the stream; none: it isn't redirected
    Fd memory;
};

ErrorLines::ErrorLines()
    : original(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)), memory(memfd_create("fodr-errors", MFD_CLOEXEC))
{
    if (!original || !memory || dup2(memory.Get(), STDERR_FILENO) < 0)
        original.Reset(-1);
}

std::string ErrorLines::Take()
{
    if (!original)
        return {};
    dup2(original.Get(), STDERR_FILENO);
    original.Reset(-1);
    std::string text;
    char part[512];
    for (ssize_t got = 0;
         (got = pread(memory.Get(), part, sizeof(part), static_cast<off_t>(text.size()))) > 0;)
        text.append(part, static_cast<size_t>(got));
    if (!text.empty() && write(STDERR_FILENO, text.data(), text.size()) < 0)
        return {};
    while (text.ends_with('\n'))
        text.pop_back();
    text.erase(0, text.rfind('\n') + 1);
    const size_t name = text.find(": ");
    return name == std::string::npos ? text : text.substr(name + 2);
}

// None of them waits for the other side; they wait for the connection to take bytes.
constexpr unsigned kFewestThreads = 2;
constexpr unsigned kMostThreads = 8;

fuse_session *NewSession(FileSystem &files, const FuseSession::Options &options)
{
    std::string mountOptions = "fsname=fodr,subtype=fodr";
    if (options.readOnly)
        mountOptions += ",ro";
    // Against others the kernel checks modes itself. For that it asks for a folder's facts anew at every
    // change of a name in it; the mount's owner, whom the other side refuses what it must, is spared this.
    if (options.allowOther)
        mountOptions += ",allow_other,default_permissions";
    fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
    fuse_session *session = nullptr;
    if (fuse_opt_add_arg(&arguments, "fodr") == 0 && fuse_opt_add_arg(&arguments, "-o") == 0 &&
        fuse_opt_add_arg(&arguments, mountOptions.c_str()) == 0)
        session = fuse_session_new(&arguments, &FuseOperations(), sizeof(fuse_lowlevel_ops), &files);
    fuse_opt_free_args(&arguments);
    return session;
}

// Set while this thread handles the request that opens the connection.
thread_local bool handlesInit = false;

bool IsInit(const fuse_buf &request)
{
    fuse_in_header header;
    if ((request.flags & FUSE_BUF_IS_FD) || request.size < sizeof(header))
        return false;
    std::memcpy(&header, request.mem, sizeof(header));
    return header.opcode == FUSE_INIT;
}

ssize_t ReadRequest(int device, void *buffer, size_t size, void *)
{
    return read(device, buffer, size);
}

// The library settles FUSE_PARALLEL_DIROPS with the file system and, up to 3.14, doesn't tell the kernel.
// Without it a folder's names are looked up one by one, and no signal ends the wait for one's turn.
ssize_t WriteAnswer(int device, iovec *parts, int count, void *)
{
    constexpr size_t kFlags = offsetof(fuse_init_out, flags);
    if (handlesInit && count > 1 && parts[1].iov_len >= kFlags + sizeof(uint32_t)) {
        auto *place = static_cast<std::byte *>(parts[1].iov_base) + kFlags;
        uint32_t flags;
        std::memcpy(&flags, place, sizeof(flags));
        flags |= FUSE_PARALLEL_DIROPS;
        std::memcpy(place, &flags, sizeof(flags));
    }
    return writev(device, parts, count);
}

// An epoll instance that tells of a request or of the stop. Of several threads with one each, a request wakes
// one.
int NewWait(int device, int stopEvent)
{
    const int wait = epoll_create1(EPOLL_CLOEXEC);
    epoll_event request = {EPOLLIN | EPOLLEXCLUSIVE, {.fd = device}};
    epoll_event stop = {EPOLLIN, {.fd = stopEvent}};
    if (wait >= 0 && epoll_ctl(wait, EPOLL_CTL_ADD, device, &request) == 0 &&
        epoll_ctl(wait, EPOLL_CTL_ADD, stopEvent, &stop) == 0)
        return wait;
    close(wait);
    return -1;
}

} // namespace

FuseSession::FuseSession(FileSystem &fileSystem, fuse_session *fuseSession, int eventFd)
    : files(fileSystem), session(fuseSession), stopEvent(eventFd)
{}

std::unique_ptr<FuseSession> FuseSession::Mount(FileSystem &fileSystem, const Options &options,
                                                std::string *error)
{
    const int stopEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    fuse_session *session = stopEvent < 0 ? nullptr : NewSession(fileSystem, options);
    if (!session) {
        *error = "the FUSE library couldn't be set up";
        close(stopEvent);
        return nullptr;
    }
    std::unique_ptr<FuseSession> mounted(new FuseSession(fileSystem, session, stopEvent));
    ErrorLines said; // the library, and the program that it starts, give their reasons there alone
    if (fuse_session_mount(session, options.mountPoint.c_str()) != 0) {
        const std::string reason = said.Take();
        *error = options.mountPoint + ": mounting was refused" + (reason.empty() ? "" : ": " + reason);
        return nullptr;
    }
    said.Take();
    const int device = fuse_session_fd(session);
    const fuse_custom_io throughUs = {
        .writev = WriteAnswer, .read = ReadRequest, .splice_receive = nullptr, .splice_send = nullptr};
    if (fuse_session_custom_io(session, &throughUs, device) != 0) {
        *error = "the FUSE library couldn't be set up";
        return nullptr;
    }
    fcntl(device, F_SETFL, fcntl(device, F_GETFL) | O_NONBLOCK);
    fcntl(device, F_SETFD, FD_CLOEXEC);
    if (!options.readOnly) // the kernel would refuse what is acted
        fileSystem.events.Actor().SetMountPoint(options.mountPoint);
    return mounted;
}

FuseSession::~FuseSession()
{
    Stop();
    // Frees what the library keeps of the mount; a mount that still lives stays as it is.
    pollfd ended = {fuse_session_fd(session), 0, 0};
    if (poll(&ended, 1, 0) == 1 && (ended.revents & POLLERR))
        fuse_session_unmount(session);
    fuse_session_destroy(session);
    close(stopEvent);
}

void FuseSession::Start(std::function<void()> onUnmounted)
{
    unmounted = std::move(onUnmounted);
    files.SetSession(session);
    const unsigned count = std::clamp(std::thread::hardware_concurrency(), kFewestThreads, kMostThreads);
    for (unsigned i = 0; i < count; ++i)
        threads.emplace_back([this] { ThreadMain(); });
}

void FuseSession::Stop()
{
    files.SetSession(nullptr);
    const uint64_t one = 1;
    while (write(stopEvent, &one, sizeof(one)) < 0 && errno == EINTR) {
    }
    for (std::thread &thread : threads)
        thread.join();
    threads.clear();
}

void FuseSession::ThreadMain()
{
    TakeRequests();
    if (fuse_session_exited(session) && !unmountTold.exchange(true))
        unmounted();
}

void FuseSession::TakeRequests()
{
    const int wait = NewWait(fuse_session_fd(session), stopEvent);
    if (wait < 0)
        fuse_session_exit(session); // nothing can be served
    fuse_buf buffer = {};
    while (!fuse_session_exited(session)) {
        epoll_event events[2];
        const int count = epoll_wait(wait, events, 2, -1);
        if (count < 0 && errno != EINTR)
            break;
        if (std::any_of(events, events + std::max(count, 0),
                        [this](const epoll_event &event) { return event.data.fd == stopEvent; }))
            break;
        const int received = fuse_session_receive_buf(session, &buffer);
        if (received == -EINTR || received == -EAGAIN)
            continue;
        if (received <= 0)
            break;
        handlesInit = IsInit(buffer);
        fuse_session_process_buf(session, &buffer);
        handlesInit = false;
    }
    free(buffer.mem);
    close(wait);
}

} // namespace fodr::agent
