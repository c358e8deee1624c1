#include "ntposix/ChangeWatch.h"

#include <fcntl.h>

namespace fodr::ntposix {

std::shared_ptr<ChangeWatch> ChangeWatch::Create(int directory, FileKey key, uint32_t filter, bool tree)
{
    Fd own(tree ? fcntl(directory, F_DUPFD_CLOEXEC, 0) : -1);
    if (tree && !own)
        return nullptr;
    return std::shared_ptr<ChangeWatch>(new ChangeWatch(directory, std::move(own), key, filter, tree));
}

ChangeWatch::ChangeWatch(int directory, Fd ownDirectory, FileKey directoryKey, uint32_t completionFilter,
                         bool watchTree)
    : key(directoryKey), filter(completionFilter), tree(watchTree), borrowed(directory),
      own(std::move(ownDirectory))
{}

void ChangeWatch::Report(uint32_t changes)
{
    if (!(changes & filter))
        return;
    const MutexLock guard(lock);
    while (!waiting.empty()) {
        BlockedCall *call = waiting.front();
        waiting.pop_front();
        if (call->End(nt::STATUS_NOTIFY_ENUM_DIR))
            return;
    }
    changed = true;
}

void ChangeWatch::Fail(nt::NTSTATUS status)
{
    const MutexLock guard(lock);
    failure = status;
    for (BlockedCall *call : waiting)
        call->End(status);
    waiting.clear();
}

nt::NTSTATUS ChangeWatch::Wait(BlockedCall &call)
{
    {
        const MutexLock guard(lock);
        if (changed && call.End(nt::STATUS_NOTIFY_ENUM_DIR))
            changed = false;
        else if (failure)
            call.End(*failure);
        else
            waiting.push_back(&call);
    }
    const nt::NTSTATUS ending = call.Wait();
    const MutexLock guard(lock);
    std::erase(waiting, &call);
    return ending;
}

} // namespace fodr::ntposix
