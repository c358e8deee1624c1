#include "ntposix/BlockedCall.h"

#include <algorithm>

namespace fodr::ntposix {

bool BlockedCalls::Cancel()
{
    const MutexLock guard(lock);
    bool any = false;
    for (BlockedCall *call : calls)
        any |= call->End(nt::STATUS_CANCELLED);
    return any;
}

void BlockedCalls::Close()
{
    const MutexLock guard(lock);
    closed.store(true);
    for (BlockedCall *call : calls)
        call->End(call->statusAtClose);
}

void BlockedCalls::Add(BlockedCall *call)
{
    const MutexLock guard(lock);
    if (closed.load())
        call->End(call->statusAtClose);
    else
        calls.push_back(call);
}

void BlockedCalls::Remove(BlockedCall *call)
{
    const MutexLock guard(lock);
    std::erase(calls, call);
}

BlockedCall::BlockedCall(BlockedCalls &handleCalls, nt::NTSTATUS closeStatus)
    : calls(handleCalls), statusAtClose(closeStatus)
{
    calls.Add(this);
}

BlockedCall::~BlockedCall()
{
    calls.Remove(this);
}

bool BlockedCall::End(nt::NTSTATUS status)
{
    const MutexLock guard(lock);
    if (ending)
        return false;
    ending = status;
    ended.notify_one();
    return true;
}

void BlockedCall::Nudge()
{
    const MutexLock guard(lock);
    nudged = true;
    ended.notify_one();
}

nt::NTSTATUS BlockedCall::Wait()
{
    const MutexLock guard(lock);
    while (!ending)
        ended.wait(lock);
    return *ending;
}

std::optional<nt::NTSTATUS> BlockedCall::WaitFor(std::optional<std::chrono::milliseconds> time)
{
    const auto deadline = std::chrono::steady_clock::now() + time.value_or(std::chrono::milliseconds(0));
    const MutexLock guard(lock);
    while (!ending && !nudged) {
        if (!time)
            ended.wait(lock);
        else if (ended.wait_until(lock, deadline) == std::cv_status::timeout)
            break;
    }
    nudged = false;
    return ending;
}

bool BlockedCall::HasEnded()
{
    const MutexLock guard(lock);
    return ending.has_value();
}

} // namespace fodr::ntposix
