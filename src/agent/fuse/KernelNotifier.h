// Tells the kernel what to forget. A thread of its own does it: these calls may wait for locks that are held
// while the kernel waits for an answer of ours. It also calls what is to be called later.
#pragma once

#include "agent/InlineFunction.h"
#include "lib/misc/Mutex.h"

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

struct fuse_session;

namespace fodr::agent {

class KernelNotifier {
public:
    KernelNotifier();
    ~KernelNotifier(); // drops pending notices
    // Until a session is set nothing is told; Stop ends it, and waits for a call that is under way.
    void SetSession(fuse_session *fuseSession);
    void Stop();

    // The node's attributes are to be asked for again.
    void AttributesChanged(uint64_t node);
    // The file's bytes and attributes are to be asked for again.
    void DataChanged(uint64_t node);
    // The name is to be looked up again when it is used next.
    void NameChanged(uint64_t parent, const std::string &name);
    // The name has gone.
    void NameGone(uint64_t parent, const std::string &name);
    // Calls the function at the time, on the thread, unless Stop comes before.
    using Clock = std::chrono::steady_clock;
    void CallAt(Clock::time_point time, InlineFunction<void()> function);

private:
    enum class Kind { Attributes, Data, Expire, Gone };
    struct Notice {
        Kind kind;
        uint64_t node;
        std::string name;
    };
    void Push(Notice notice);
    void ThreadMain();
    bool WaitForWork(std::vector<Notice> *batch, InlineFunction<void()> *due) REQUIRES(lock);
    static void Tell(fuse_session *fuseSession, const Notice &notice);

    Mutex lock;
    Condition wakeup;
    std::vector<Notice> notices GUARDED_BY(lock);
    std::multimap<Clock::time_point, InlineFunction<void()>> calls GUARDED_BY(lock);
    fuse_session *session GUARDED_BY(lock) = nullptr;
    bool stopping GUARDED_BY(lock) = false;
    std::thread thread;
};

} // namespace fodr::agent
