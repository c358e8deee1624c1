// The mount: session with the kernel, the threads that take its requests, unmounting.
#pragma once

#include "agent/fuse/FileSystem.h"

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

struct fuse_lowlevel_ops;
struct fuse_session;

namespace fodr::agent {

// The directory that is mounted on: whether it can be, and how it is given back. Errors are whole sentences
// that name the path.

// Makes sure that the directory can be mounted on; a mount that a dead agent has left there is taken away.
[[nodiscard]] bool PrepareMountPoint(const std::string &path, std::string *error);

enum class UnmountOutcome {
    Unmounted, // or it had been
    Detached,  // in use: it is gone from the tree, and ends with its last user
    Failed,
};
// `path` is absolute, as mountinfo has it. `*remark` says what was in the way.
UnmountOutcome Unmount(const std::string &path, std::string *remark);

class FuseSession {
public:
    struct Options {
        std::string mountPoint;
        bool readOnly = false;
        bool allowOther = false;
    };
    // Mounts the file system, which outlives the session. Null with a sentence when that fails.
    static std::unique_ptr<FuseSession> Mount(FileSystem &fileSystem, const Options &options,
                                              std::string *error);
    // Stops, and closes the connection: what is still open then gives errors. Unmounting is the caller's.
    ~FuseSession();
    FuseSession(const FuseSession &) = delete;
    FuseSession &operator=(const FuseSession &) = delete;

    // Starts to take requests. `onUnmounted` is called once, on one of the threads, when the mount has ended.
    void Start(std::function<void()> onUnmounted);
    // No request is taken any more; those that were taken may still be answered.
    void Stop();

private:
    FuseSession(FileSystem &fileSystem, fuse_session *fuseSession, int eventFd);
    void ThreadMain();
    void TakeRequests();

    FileSystem &files;
    fuse_session *const session;
    const int stopEvent;
    std::function<void()> unmounted;
    std::atomic<bool> unmountTold{false};
    std::vector<std::thread> threads;
};

// The bridge from libfuse's table of operations to the file system (FuseOperations.cpp). Its functions expect
// the FileSystem as the session's user data.
const fuse_lowlevel_ops &FuseOperations();

} // namespace fodr::agent
