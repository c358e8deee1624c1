#include "ntposix/ChangeMonitor.h"
#include "ntposix/ChangeWatch.h"
#include "ntposix/HandleTable.h"
#include "ntposix/NtCall.h"
#include "ntposix/OpenFile.h"

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
