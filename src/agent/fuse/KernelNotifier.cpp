#include "agent/fuse/KernelNotifier.h"

#include "agent/fuse/Fuse.h"

namespace fodr::agent {

KernelNotifier::KernelNotifier() : thread([this] { ThreadMain(); }) {}

KernelNotifier::~KernelNotifier()
{
    Stop();
}

void KernelNotifier::SetSession(fuse_session *fuseSession)
{
    const MutexLock held(lock);
    session = fuseSession;
}

void KernelNotifier::Stop()
{
    {
        const MutexLock held(lock);
        stopping = true;
        wakeup.notify_all();
    }
    if (thread.joinable())
        thread.join();
    std::multimap<Clock::time_point, InlineFunction<void()>> left; // calls of a session that is still there
    const MutexLock held(lock);
    left.swap(calls);
}

void KernelNotifier::Push(Notice notice)
{
    const MutexLock held(lock);
    if (session == nullptr || stopping)
        return;
    notices.push_back(std::move(notice));
    wakeup.notify_one();
}

void KernelNotifier::AttributesChanged(uint64_t node)
{
    Push({Kind::Attributes, node, {}});
}

void KernelNotifier::DataChanged(uint64_t node)
{
    Push({Kind::Data, node, {}});
}

void KernelNotifier::NameChanged(uint64_t parent, const std::string &name)
{
    Push({Kind::Expire, parent, name});
}

void KernelNotifier::NameGone(uint64_t parent, const std::string &name)
{
    Push({Kind::Gone, parent, name});
}

// A kernel that doesn't know the node or the name has nothing to forget.
void KernelNotifier::Tell(fuse_session *fuseSession, const Notice &notice)
{
    switch (notice.kind) {
    case Kind::Attributes:
        fuse_lowlevel_notify_inval_inode(fuseSession, notice.node, -1, 0);
        break;
    case Kind::Data:
        fuse_lowlevel_notify_inval_inode(fuseSession, notice.node, 0, 0);
        break;
    case Kind::Expire:
        fuse_lowlevel_notify_expire_entry(fuseSession, notice.node, notice.name.data(), notice.name.size(),
                                          FUSE_LL_EXPIRE_ONLY);
        break;
    case Kind::Gone:
        fuse_lowlevel_notify_inval_entry(fuseSession, notice.node, notice.name.data(), notice.name.size());
        break;
    }
}

void KernelNotifier::CallAt(Clock::time_point time, InlineFunction<void()> function)
{
    const MutexLock held(lock);
    if (stopping)
        return;
    calls.emplace(time, std::move(function));
    wakeup.notify_one();
}

// False: it is time to stop.
bool KernelNotifier::WaitForWork(std::vector<Notice> *batch, InlineFunction<void()> *due)
{
    while (!stopping && notices.empty() && (calls.empty() || Clock::now() < calls.begin()->first)) {
        if (calls.empty()) {
            wakeup.wait(lock);
        } else {
            const Clock::time_point next = calls.begin()->first;
            wakeup.wait_until(lock, next);
        }
    }
    batch->swap(notices);
    if (!calls.empty() && Clock::now() >= calls.begin()->first)
        *due = std::move(calls.extract(calls.begin()).mapped());
    return !stopping;
}

void KernelNotifier::ThreadMain()
{
    for (;;) {
        std::vector<Notice> batch;
        InlineFunction<void()> due;
        fuse_session *told;
        {
            const MutexLock held(lock);
            if (!WaitForWork(&batch, &due))
                return;
            told = session;
        }
        for (const Notice &notice : batch)
            Tell(told, notice);
        if (due)
            due();
    }
}

} // namespace fodr::agent
