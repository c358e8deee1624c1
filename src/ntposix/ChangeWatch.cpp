#include "ntposix/ChangeWatch.h"

#include "ntposix/ChangeMonitor.h"
#include "ntposix/HandleTable.h"
#include "ntposix/NtCall.h"
#include "ntposix/OpenFile.h"
#include "platform/Nt.h"

#include <sys/inotify.h>
#include <utility>

namespace fodr::ntposix {

// False when it had ended before.
bool ChangeWatch::End(const Waiter &waiter, nt::NTSTATUS status)
{
    nt::NoticeOrder::State::Ended(waiter.delivery);
    if (waiter.call->End(status))
        return true;
    nt::NoticeOrder::State::NotEnded(waiter.delivery);
    return false;
}

void ChangeWatch::Report(uint32_t changes)
{
    if (!(changes & filter))
        return;
    const MutexLock guard(lock);
    while (!waiting.empty()) {
        const Waiter waiter = waiting.front();
        waiting.pop_front();
        if (End(waiter, nt::STATUS_NOTIFY_ENUM_DIR))
            return;
    }
    changed = true;
}

void ChangeWatch::Fail(nt::NTSTATUS status)
{
    const MutexLock guard(lock);
    failure = status;
    for (const Waiter &waiter : waiting)
        End(waiter, status);
    waiting.clear();
}

nt::NTSTATUS ChangeWatch::Wait(BlockedCall &call)
{
    {
        const MutexLock guard(lock);
        const Waiter waiter{&call, nt::NoticeOrder::State::OfThisThread()};
        nt::NoticeOrder::State::Waits(waiter.delivery);
        if (changed && End(waiter, nt::STATUS_NOTIFY_ENUM_DIR))
            changed = false;
        else if (failure)
            End(waiter, *failure);
        else
            waiting.push_back(waiter);
    }
    const nt::NTSTATUS ending = call.Wait();
    const MutexLock guard(lock);
    std::erase_if(waiting, [&call](const Waiter &waiter) { return waiter.call == &call; });
    return ending;
}

namespace {

constexpr uint32_t kNameEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr uint32_t kStreamChanges = 0xE00; // FILE_NOTIFY_CHANGE_STREAM_*: streams are extended attributes

struct FilterRow {
    uint32_t events;
    uint32_t changes;
};

// inotify tells of a set time, a mode and an extended attribute alike.
constexpr FilterRow kRows[] = {
    {kNameEvents, nt::FILE_NOTIFY_CHANGE_FILE_NAME | nt::FILE_NOTIFY_CHANGE_DIR_NAME},
    {IN_MODIFY, nt::FILE_NOTIFY_CHANGE_SIZE | nt::FILE_NOTIFY_CHANGE_LAST_WRITE},
    {IN_ACCESS, nt::FILE_NOTIFY_CHANGE_LAST_ACCESS},
    {IN_ATTRIB, nt::FILE_NOTIFY_CHANGE_ATTRIBUTES | nt::FILE_NOTIFY_CHANGE_LAST_WRITE |
                    nt::FILE_NOTIFY_CHANGE_LAST_ACCESS | nt::FILE_NOTIFY_CHANGE_CREATION |
                    nt::FILE_NOTIFY_CHANGE_EA | nt::FILE_NOTIFY_CHANGE_SECURITY | kStreamChanges},
};

} // namespace

uint32_t EventsOfFilter(uint32_t filter)
{
    uint32_t events = 0;
    for (const FilterRow &row : kRows)
        events |= filter & row.changes ? row.events : 0;
    return events;
}

uint32_t ChangesOfEvent(uint32_t event)
{
    uint32_t changes = 0;
    for (const FilterRow &row : kRows)
        changes |= event & row.events ? row.changes : 0;
    if (event & kNameEvents)
        changes &= ~(event & IN_ISDIR ? nt::FILE_NOTIFY_CHANGE_FILE_NAME : nt::FILE_NOTIFY_CHANGE_DIR_NAME);
    // Listing a folder reads it; a watcher that lists it upon each change would never come to rest.
    if (event & IN_ISDIR && !(event & ~static_cast<uint32_t>(IN_ACCESS | IN_ISDIR)))
        changes = 0;
    return changes;
}

} // namespace fodr::ntposix

namespace fodr::nt {

namespace {

thread_local NoticeOrder::Delivery *currentDelivery = nullptr;

} // namespace

NoticeOrder::Delivery *NoticeOrder::State::OfThisThread()
{
    return currentDelivery;
}

void NoticeOrder::State::Waits(Delivery *delivery)
{
    if (!delivery || std::exchange(delivery->waits, true))
        return;
    ++delivery->order.waiting;
}

void NoticeOrder::State::Ended(Delivery *delivery)
{
    if (!delivery)
        return;
    State &state = delivery->order;
    const MutexLock guard(state.lock);
    delivery->number = ++state.lastNumber;
    state.ended.insert(delivery->number);
    state.endedOnes.store(state.ended.size());
}

void NoticeOrder::State::NotEnded(Delivery *delivery)
{
    const uint64_t number = delivery ? std::exchange(delivery->number, 0) : 0;
    if (number == 0)
        return;
    State &state = delivery->order;
    const MutexLock guard(state.lock);
    state.ended.erase(number);
    state.endedOnes.store(state.ended.size());
    state.delivered.notify_all();
}

// Only for those that have ended by now: more may come without end.
void NoticeOrder::State::WaitUntilDelivered()
{
    const MutexLock guard(lock);
    const uint64_t last = lastNumber;
    while (!ended.empty() && *ended.begin() <= last)
        delivered.wait(lock);
}

NoticeOrder::NoticeOrder() : state(std::make_unique<State>()) {}

NoticeOrder::~NoticeOrder() = default;

void NoticeOrder::Settle()
{
    // Who delivers is what others wait for.
    if (currentDelivery || state->waiting.load() == 0)
        return;
    if (const auto monitor = ntposix::ChangeMonitor::Running())
        monitor->Drain();
    if (state->endedOnes.load() != 0)
        state->WaitUntilDelivered();
}

NoticeOrder::Delivery::Delivery(NoticeOrder &ofOrder) : order(*ofOrder.state)
{
    currentDelivery = this;
}

NoticeOrder::Delivery::~Delivery()
{
    currentDelivery = nullptr;
    State::NotEnded(this);
    if (waits)
        --order.waiting;
}

} // namespace fodr::nt

namespace fodr::ntposix {

void NotifyDeletePending(dev_t device, ino_t inode)
{
    if (const auto monitor = ChangeMonitor::Running())
        monitor->FailDirectory({device, inode}, nt::STATUS_DELETE_PENDING);
}

namespace {

// The watch of the handle, which its first call sets up. As under NT the filter and the depth of that call
// hold until the handle is closed.
nt::NTSTATUS WatchOf(OpenFile &file, uint32_t filter, bool tree, BlockedCall &call,
                     std::shared_ptr<ChangeWatch> *watch)
{
    HandleServices &services = file.services;
    const MutexLock guard(services.changesLock);
    if (!services.changes) {
        auto monitor = ChangeMonitor::Get();
        if (!monitor)
            return nt::STATUS_INSUFFICIENT_RESOURCES;
        auto created = std::make_shared<ChangeWatch>(file.fd.Get(), file.object->key, filter, tree);
        auto added = std::make_unique<ChangeSubscription>(std::move(monitor), std::move(created));
        const nt::NTSTATUS status = added->monitor->Add(added->watch, call);
        if (nt::IsError(status))
            return status;
        if (services.blockedCalls.IsClosed()) // and HandleServices::Close may have been here already
            return nt::STATUS_NOTIFY_CLEANUP;
        services.changes = std::move(added);
    }
    *watch = services.changes->watch;
    return nt::STATUS_SUCCESS;
}

nt::NTSTATUS WaitForChange(OpenFile &file, uint32_t filter, bool tree)
{
    BlockedCall call(file.services.blockedCalls, nt::STATUS_NOTIFY_CLEANUP);
    std::shared_ptr<ChangeWatch> watch;
    const nt::NTSTATUS status = WatchOf(file, filter, tree, call, &watch);
    if (watch)
        return watch->Wait(call);
    return call.HasEnded() ? call.Wait() : status;
}

} // namespace

} // namespace fodr::ntposix

namespace fodr::nt {

// What changed isn't gathered. STATUS_NOTIFY_ENUM_DIR with no data tells the caller to list the directory, as
// it does under NT for a buffer that is too small for the changes.
NTSTATUS NtNotifyChangeDirectoryFile(HANDLE file, HANDLE, void *, void *, IO_STATUS_BLOCK *ioStatus, void *,
                                     uint32_t, uint32_t completionFilter, bool watchTree)
{
    const ntposix::OpenFileRef open = ntposix::HandleTable::Instance().Find(file);
    NTSTATUS status;
    if (!open)
        status = STATUS_INVALID_HANDLE;
    else if (completionFilter == 0 || (completionFilter & ~ntposix::kEveryChange))
        status = STATUS_INVALID_PARAMETER;
    else if (!open->HasAccess(FILE_LIST_DIRECTORY))
        status = STATUS_ACCESS_DENIED;
    else if (!open->IsDirectory())
        status = STATUS_INVALID_PARAMETER;
    else
        status = ntposix::WithoutThrowing(
            [&] { return ntposix::WaitForChange(*open, completionFilter, watchTree); });
    return ntposix::Complete(ioStatus, status, 0);
}

} // namespace fodr::nt
