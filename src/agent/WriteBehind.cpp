#include "agent/WriteBehind.h"

#include <algorithm>
#include <limits>

namespace fodr::agent {
namespace {

bool Overlap(uint64_t firstBegin, uint64_t firstEnd, uint64_t secondBegin, uint64_t secondEnd)
{
    return firstBegin < secondEnd && secondBegin < firstEnd;
}

} // namespace

void WriteErrors::Note(nt::NTSTATUS status)
{
    const MutexLock held(lock);
    if (forWrite == nt::STATUS_SUCCESS)
        forWrite = status;
    if (forFlush == nt::STATUS_SUCCESS)
        forFlush = status;
}

nt::NTSTATUS WriteErrors::TakeForWrite()
{
    const MutexLock held(lock);
    return std::exchange(forWrite, nt::STATUS_SUCCESS);
}

nt::NTSTATUS WriteErrors::TakeForFlush()
{
    const MutexLock held(lock);
    forWrite = nt::STATUS_SUCCESS;
    return std::exchange(forFlush, nt::STATUS_SUCCESS);
}

bool WriteBehind::OverlapsActive(uint64_t offset, uint64_t end) const
{
    auto next = active.lower_bound(offset);
    if (next != active.end() && next->first < end)
        return true;
    return next != active.begin() && std::prev(next)->second.end > offset;
}

bool WriteBehind::OverlapsQueued(uint64_t begin, uint64_t end) const
{
    return std::any_of(queued.begin(), queued.end(), [&](const Queued &earlier) {
        return Overlap(earlier.Begin(), earlier.End(), begin, end);
    });
}

void WriteBehind::Activate(uint64_t begin, uint64_t end, size_t size, uint64_t sequence)
{
    const TransferWindow::Transfer transfer = window.Begin(size, TransferWindow::Clock::now());
    active.emplace(begin, Active{.end = end, .size = size, .sequence = sequence, .transfer = transfer});
}

void WriteBehind::Write(const Target &target, uint64_t offset, ByteSpan bytes, Waiter accepted)
{
    const uint64_t end = offset + bytes.size();
    if (bytes.empty())
        return accepted();
    bool sendNow;
    {
        const MutexLock held(lock);
        ++generation;
        const uint64_t sequence = ++lastSequence;
        sendNow = !OverlapsActive(offset, end) && !OverlapsQueued(offset, end);
        if (sendNow)
            Activate(offset, end, bytes.size(), sequence);
        else
            queued.push_back({target, offset, sequence, {bytes.begin(), bytes.end()}});
    }
    if (!sendNow)
        return WhenRangeDone(offset, bytes.size(), std::move(accepted));
    Send(target, offset, bytes);
    window.WhenBelow(std::move(accepted));
}

void WriteBehind::Append(const Target &target, ByteSpan bytes, Waiter accepted)
{
    if (bytes.empty())
        return accepted();
    bool sendNow, full = false;
    {
        const MutexLock held(lock);
        ++generation;
        sendNow = active.empty() && queued.empty();
        Queued *last = queued.empty() ? nullptr : &queued.back();
        if (sendNow) {
            Activate(0, kToEnd, bytes.size(), ++lastSequence);
        } else if (last && last->Appends() && last->target.errors == target.errors &&
                   last->bytes.size() + bytes.size() <= kMostAppended) {
            last->bytes.insert(last->bytes.end(), bytes.begin(), bytes.end());
        } else {
            queued.push_back({target, kToEnd, ++lastSequence, {bytes.begin(), bytes.end()}});
            full = last != nullptr;
        }
    }
    if (sendNow)
        Send(target, kToEnd, bytes);
    if (full)
        return WhenDone(std::move(accepted));
    window.WhenBelow(std::move(accepted));
}

void WriteBehind::Send(const Target &target, uint64_t offset, ByteSpan bytes)
{
    if (offset == kToEnd && target.share->OutlivesConnections())
        return SendAppend(std::make_shared<Appending>(Appending{target, {bytes.begin(), bytes.end()}}));
    const uint64_t begin = offset == kToEnd ? 0 : offset;
    target.share->Write(target.fileId, offset, bytes,
                        [self = shared_from_this(), errors = target.errors, begin](const IoResult &result) {
                            self->OnAnswer(errors, begin, result);
                        });
}

void WriteBehind::SendAppend(const AppendingPtr &append)
{
    {
        const MutexLock held(lock);
        append->floor = knownEnd.Before(append->bytes);
    }
    append->target.share->Write(
        append->target.fileId, kToEnd, append->bytes,
        [self = shared_from_this(), append](const IoResult &result) { self->OnAppended(append, result); });
}

void WriteBehind::OnAppended(const AppendingPtr &append, const IoResult &result)
{
    const bool lost = result.status == STATUS_CONNECTION_DISCONNECTED;
    AppendFloor floor = append->floor;
    {
        const MutexLock held(lock);
        floor.known = floor.known && !knownEnd.WasCutSince(floor);
        if (!lost)
            knownEnd.NoteAppended(append->floor, result.Failed() ? 0 : result.length);
    }
    if (!lost)
        return OnAnswer(append->target.errors, 0, result);
    LookForAppend(
        append->target.share, append->target.fileId, floor, append->bytes,
        [self = shared_from_this(), append](const AppendFound &found) { self->OnLookedFor(append, found); });
}

// Nothing else of the file was on its way meanwhile, and isn't yet.
void WriteBehind::OnLookedFor(const AppendingPtr &append, const AppendFound &found)
{
    {
        const MutexLock held(lock);
        if (found.fate == AppendFate::Unknown || knownEnd.WasCutSince(append->floor))
            knownEnd.NoteAppended(append->floor, 0);
        else
            knownEnd.NoteSize(found.size, true);
    }
    if (found.fate == AppendFate::NotDone)
        return SendAppend(append);
    IoResult outcome = {.length = static_cast<uint32_t>(append->bytes.size())};
    if (found.fate == AppendFate::Unknown)
        outcome.status = STATUS_CONNECTION_DISCONNECTED;
    OnAnswer(append->target.errors, 0, outcome);
}

void WriteBehind::NoteFacts(const FileFacts &facts, uint64_t asked)
{
    const MutexLock held(lock);
    knownEnd.NoteSize(static_cast<uint64_t>(std::max<int64_t>(facts.endOfFile, 0)),
                      asked == generation && active.empty() && queued.empty());
}

void WriteBehind::SizeChanges()
{
    const MutexLock held(lock);
    ++generation;
    knownEnd.Cut();
}

void WriteBehind::SizeChanged(nt::NTSTATUS outcome, uint64_t size)
{
    const MutexLock held(lock);
    ++generation;
    if (!nt::IsError(outcome) && active.empty() && queued.empty())
        knownEnd.NoteSize(size, true);
}

void WriteBehind::OnAnswer(const std::shared_ptr<WriteErrors> &errors, uint64_t begin, const IoResult &result)
{
    Active done;
    std::vector<Queued> sendable;
    std::vector<Waiter> satisfied;
    {
        const MutexLock held(lock);
        auto found = active.find(begin);
        done = found->second;
        // What was left out of a write is gone; a medium that is full is what cuts writes short.
        nt::NTSTATUS status = result.status;
        if (!result.Failed() && result.length < done.size)
            status = nt::STATUS_DISK_FULL;
        if (nt::IsError(status))
            errors->Note(status);
        if (done.end != kToEnd && !result.Failed())
            knownEnd.NoteWritten(begin + result.length);
        active.erase(found);
        ++generation;
        sendable = TakeSendable();
        satisfied = TakeSatisfied(begin, done);
    }
    window.End(done.transfer, TransferWindow::Clock::now());
    for (const Queued &write : sendable)
        Send(write.target, write.offset, write.bytes);
    for (Waiter &waiter : satisfied)
        waiter();
}

std::vector<WriteBehind::Queued> WriteBehind::TakeSendable()
{
    std::vector<Queued> sendable;
    for (auto write = queued.begin(); write != queued.end();) {
        const bool blocked = OverlapsActive(write->Begin(), write->End()) ||
                             std::any_of(queued.begin(), write, [&](const Queued &earlier) {
                                 return Overlap(earlier.Begin(), earlier.End(), write->Begin(), write->End());
                             });
        if (blocked) {
            ++write;
            continue;
        }
        Activate(write->Begin(), write->End(), write->bytes.size(), write->sequence);
        sendable.push_back(std::move(*write));
        write = queued.erase(write);
    }
    return sendable;
}

std::vector<WriteBehind::Waiter> WriteBehind::TakeSatisfied(uint64_t offset, const Active &done)
{
    std::vector<Waiter> satisfied;
    for (size_t i = 0; i < pending.size();) {
        Pending &caller = pending[i];
        if (done.sequence <= caller.sequence && Overlap(offset, done.end, caller.offset, caller.end) &&
            --caller.count == 0) {
            satisfied.push_back(std::move(caller.waiter));
            pending.erase(pending.begin() + static_cast<ptrdiff_t>(i));
        } else {
            ++i;
        }
    }
    return satisfied;
}

void WriteBehind::WhenDone(Waiter waiter)
{
    WhenRangeDone(0, std::numeric_limits<uint64_t>::max(), std::move(waiter));
}

void WriteBehind::WhenRangeDone(uint64_t offset, uint64_t length, Waiter waiter)
{
    {
        const MutexLock held(lock);
        const uint64_t end = length > std::numeric_limits<uint64_t>::max() - offset
                                 ? std::numeric_limits<uint64_t>::max()
                                 : offset + length;
        auto from = active.lower_bound(offset);
        if (from != active.begin() && std::prev(from)->second.end > offset)
            --from;
        size_t count = 0;
        for (; from != active.end() && from->first < end; ++from)
            ++count;
        for (const Queued &write : queued)
            count += Overlap(write.Begin(), write.End(), offset, end);
        if (count != 0) {
            pending.push_back({lastSequence, offset, end, count, std::move(waiter)});
            return;
        }
    }
    waiter();
}

} // namespace fodr::agent
