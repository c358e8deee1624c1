#include "agent/fuse/FuseSession.h"

#include "agent/fuse/Fuse.h"
#include "agent/fuse/FuseOperations.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/eventfd.h>

namespace fodr::agent {
namespace {

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
    if (fuse_session_mount(session, options.mountPoint.c_str()) != 0) {
        *error = options.mountPoint + ": mounting was refused; the lines above say why";
        return nullptr;
    }
    const int device = fuse_session_fd(session);
    fcntl(device, F_SETFL, fcntl(device, F_GETFL) | O_NONBLOCK);
    fcntl(device, F_SETFD, FD_CLOEXEC);
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
    fuse_buf buffer = {};
    while (!fuse_session_exited(session)) {
        pollfd waits[] = {{fuse_session_fd(session), POLLIN, 0}, {stopEvent, POLLIN, 0}};
        if (poll(waits, 2, -1) < 0 && errno != EINTR)
            break;
        if (waits[1].revents != 0)
            break;
        const int received = fuse_session_receive_buf(session, &buffer);
        if (received == -EINTR || received == -EAGAIN)
            continue;
        if (received <= 0)
            break;
        fuse_session_process_buf(session, &buffer);
    }
    free(buffer.mem);
}

} // namespace fodr::agent
