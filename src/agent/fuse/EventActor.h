// Makes the kernel tell its watchers what the owner did: a thread does the like in the mount, and each of its
// requests is answered here as done (EventOperations). Nothing of it reaches the host.
//
// The thread waits in the kernel for locks that others hold while they wait for the host. So nobody waits for
// the thread, and it holds no lock meanwhile.
#pragma once

#include "agent/fuse/FolderChanges.h"
#include "agent/fuse/MountState.h"
#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"

#include <deque>
#include <thread>

struct fuse_req;
struct fuse_lowlevel_ops;

namespace fodr::agent {

class EventActor {
public:
    // Events that wait to be acted. Beyond them a folder gets one event of its own.
    static constexpr size_t kMostWaiting = 16'384;

    explicit EventActor(MountState &mountState) : mount(mountState) {}
    ~EventActor(); // when the connection to the kernel is closed

    // Where the mount is; without, nothing is acted.
    void SetMountPoint(const std::string &path);
    void Push(std::vector<FolderEvent> events);
    // Acts no more, and lets go of the mount: at once, but for a call that waits in the kernel.
    void Stop();

    // Whether the request is one of the thread's.
    bool IsActing(fuse_req *request) const;
    // The handle of every file that the thread opens.
    static constexpr uint64_t kHandle = UINT64_MAX;
    // Where what replaces a file comes from, in a folder that nobody else sees.
    static constexpr const char *kNewFile = "new";

    // Answers to the thread.
    void Lookup(fuse_req *request, uint64_t parent, const char *name);
    void GetAttr(fuse_req *request, uint64_t node);
    void SetAttr(fuse_req *request, uint64_t node);
    void Open(fuse_req *request);
    void Create(fuse_req *request, uint64_t parent, const char *name);
    void Make(fuse_req *request, uint64_t parent, const char *name);
    void Remove(fuse_req *request, uint64_t parent, const char *name);
    void Rename(fuse_req *request, uint64_t parent, const char *name, uint64_t newParent,
                const char *newName);

private:
    // What is being acted, as its requests see it.
    struct Scene {
        const FolderEvent *event = nullptr; // the thread's own
        NodePtr subject;                    // what the name leads to, once it was looked up
        bool standsIn = false;              // it isn't the file itself
    };

    void ThreadMain();
    void ActOut(const std::vector<FolderEvent> &events);
    bool IsStopping();
    Fd OpenFolder(const Fd &root, const NodePtr &folder);
    bool IsNode(const Fd &fd, const NodePtr &node);
    bool IsOfOwnSize(const FolderEvent &event) const;
    void Act(const FolderEvent &event, const Fd &folder, const Fd &newFolder);
    void Begin(const FolderEvent *event);

    // EventAnswers.cpp
    NodePtr Nowhere(const NodePtr &folder);
    NodePtr StandIn(const NodePtr &folder, NodeKind kind);
    NodePtr Former(const NodePtr &folder, const std::string &name, const FileFacts &facts);
    NodePtr Moving(const NodePtr &parent, const std::string &name) REQUIRES(lock);
    NodePtr OnScene(const NodePtr &parent, const std::string &name, FileFacts *facts, bool *known)
        REQUIRES(lock);
    NodePtr OnTheWay(const NodePtr &parent, const std::string &name, FileFacts *facts);
    NodePtr TakeMade(fuse_req *request, uint64_t parent, const char *name, FileFacts *facts);
    FileFacts FactsOf(const NodePtr &node) const;
    FileFacts Newest(const NodePtr &node, const FileFacts &told) const;
    bool HasOwnSize(const NodePtr &node) const;
    void Refuse(fuse_req *request, const NodePtr &reached);
    void ReplyEntry(fuse_req *request, const NodePtr &node, const FileFacts &facts);

    MountState &mount;
    std::atomic<pid_t> threadId{0};
    std::atomic<uint64_t> proof{0};           // the node whose attributes the thread asked for last
    std::atomic<Node::Clock::rep> askedAt{0}; // FolderEvent::asked of what is being acted
    Mutex lock;
    Condition changed;
    std::string mountPoint GUARDED_BY(lock);
    std::deque<FolderEvent> waiting GUARDED_BY(lock);
    bool acting GUARDED_BY(lock) = false;
    bool stopping GUARDED_BY(lock) = false;
    Scene scene GUARDED_BY(lock);
    std::thread thread GUARDED_BY(lock);
};

// Puts the EventActor before the operations of the file system: its thread's requests are answered by it.

// Also notes which names the mount's own programs change, and which folders they use.
void RouteActedRequests(fuse_lowlevel_ops *operations);

} // namespace fodr::agent
