// RequestTable: connections that come and go, and files that are opened again.
#include "agent/RequestTable.h"

#include <algorithm>

namespace fodr::agent {
namespace {

// More than any program has under way; what is beyond fails at once.
constexpr size_t kMostHeld = 8192;
constexpr size_t kMostHeldBytes = 48 << 20;

} // namespace

bool RequestTable::HasRoomToWait(size_t bytes) const
{
    return held < kMostHeld && heldBytes + bytes <= kMostHeldBytes;
}

RequestTable::Share *RequestTable::FindShare(uint32_t shareId)
{
    const auto found =
        std::find_if(shares.begin(), shares.end(), [&](const Share &share) { return share.id == shareId; });
    return found == shares.end() ? nullptr : &*found;
}

// The numbers of the wire are put into a request that goes. One on a file that has to be opened again waits,
// and the first of them has the caller open it.
RequestTable::Found RequestTable::FindWay(const Expected &expected, DR_DEVICE_IOREQUEST *request,
                                          uint32_t *fileToReopen, std::shared_ptr<void> *letGo)
{
    const bool closes = request->MajorFunction == IRP_MJ_CLOSE;
    const Share *share = FindShare(expected.deviceId);
    const bool reachable = channel && share && share->bound;
    if (expected.onlyOn != 0 && expected.onlyOn != connection)
        return {Way::Ends, STATUS_FILE_INVALID};
    if (expected.ofConnection) {
        if (!reachable)
            return {Way::Ends, STATUS_CONNECTION_DISCONNECTED};
        request->DeviceId = share->wireId;
        return {};
    }
    if (request->MajorFunction != IRP_MJ_CREATE) {
        RemoteHandle *file = files.Find(request->FileId);
        const bool open = file && !file->gone && file->connection == connection;
        const uint32_t fileId = request->FileId;
        if (open)
            request->FileId = file->wireId;
        if (file && closes)
            *letGo = files.Remove(fileId).reopen;
        if (!open && closes)
            return {Way::Ends, nt::STATUS_SUCCESS};
        if (!open && (!file || file->gone || !file->reopen))
            return {Way::Ends, STATUS_FILE_INVALID};
        if (!open) {
            if (reachable && !std::exchange(file->reopening, true))
                *fileToReopen = fileId;
            return {Way::Waits};
        }
    }
    if (!share)
        return {Way::Ends, nt::STATUS_DEVICE_REMOVED};
    if (!reachable)
        return {Way::Waits};
    request->DeviceId = share->wireId;
    return {};
}

RequestTable::Found RequestTable::FateAtLoss(const Slot &slot)
{
    if (slot.expected.afterLoss == AfterLoss::IsOver)
        return {Way::Ends, nt::STATUS_SUCCESS};
    if (slot.expected.ofConnection || slot.expected.onlyOn != 0 ||
        (slot.sent && slot.expected.afterLoss == AfterLoss::Fails))
        return {Way::Ends, STATUS_CONNECTION_DISCONNECTED};
    if (slot.request.MajorFunction == IRP_MJ_CREATE)
        return {Way::Waits};
    const RemoteHandle *file = files.Find(slot.request.FileId);
    if (!file || file->gone || !file->reopen)
        return {Way::Ends, STATUS_FILE_INVALID};
    return {Way::Waits};
}

void RequestTable::Connect(std::shared_ptr<AgentChannel> newChannel)
{
    const MutexLock guard(lock);
    channel = std::move(newChannel);
    for (Share &share : shares)
        share.bound = false; // also one that was announced while the last connection went
}

void RequestTable::Disconnect()
{
    std::vector<std::pair<IoHandler, nt::NTSTATUS>> ending;
    std::shared_ptr<AgentChannel> former; // let go outside the lock
    {
        const MutexLock guard(lock);
        former.swap(channel);
        ++connection;
        for (Share &share : shares)
            share.bound = false;
        files.ForEach([](RemoteHandle &file) { file.reopening = false; });
        for (uint32_t index = 0; index < slotCount; ++index) {
            Slot *slot = SlotOf(index);
            if (slot->state == SlotState::GivenUp)
                Free(index); // its answer won't come
            if (slot->state != SlotState::Waiting)
                continue;
            const Found fate = FateAtLoss(*slot);
            if (fate.way == Way::Ends) {
                ending.emplace_back(std::move(slot->handler), fate.outcome);
                EndWait(*slot);
                Free(index);
            } else if (slot->sent) {
                Hold(slot);
            }
        }
    }
    for (auto &[handler, status] : ending)
        handler(IoResult{.status = status});
}

// Sends what waits in the order in which it was asked for.
template <class Predicate> RequestTable::Released RequestTable::Release(Predicate &&isMeant)
{
    Released released;
    std::vector<uint32_t> meant;
    for (uint32_t index = 0; held != 0 && index < slotCount; ++index) {
        const Slot *slot = SlotOf(index);
        if (slot->state == SlotState::Waiting && !slot->sent && isMeant(*slot))
            meant.push_back(index);
    }
    std::vector<std::pair<uint64_t, uint32_t>> inOrder;
    for (const uint32_t index : meant)
        inOrder.emplace_back(SlotOf(index)->order, index);
    std::sort(inOrder.begin(), inOrder.end());
    for (const auto &[order, index] : inOrder) {
        Slot *slot = SlotOf(index);
        DR_DEVICE_IOREQUEST request = slot->request;
        uint32_t fileToReopen = 0;
        std::shared_ptr<void> letGo; // a close doesn't wait
        const Found found = FindWay(slot->expected, &request, &fileToReopen, &letGo);
        if (fileToReopen != 0)
            released.filesToReopen.push_back(fileToReopen);
        if (found.way == Way::Waits)
            continue;
        if (found.way == Way::Ends) {
            released.ended.emplace_back(std::move(slot->handler), found.outcome);
            EndWait(*slot);
            Free(index);
            continue;
        }
        --held;
        heldBytes -= slot->payload.size();
        slot->sent = true;
        slot->wireDevice = request.DeviceId;
        slot->connection = connection;
        released.packets.push_back({request, slot->payload});
    }
    released.channel = channel;
    return released;
}

RequestTable::Released RequestTable::Bind(uint32_t shareId, uint32_t wireId)
{
    const MutexLock guard(lock);
    Share *share = FindShare(shareId);
    if (!share)
        share = &shares.emplace_back();
    *share = {.id = shareId, .wireId = wireId, .bound = true};
    return Release([shareId](const Slot &slot) { return slot.expected.deviceId == shareId; });
}

void RequestTable::RemoveShare(uint32_t shareId)
{
    {
        const MutexLock guard(lock);
        std::erase_if(shares, [shareId](const Share &share) { return share.id == shareId; });
        files.ForEach([shareId](RemoteHandle &file) { file.gone = file.gone || file.shareId == shareId; });
    }
    FailDevice(shareId, nt::STATUS_DEVICE_REMOVED);
}

uint32_t RequestTable::WireIdOf(uint32_t fileId, uint32_t *onlyOn)
{
    if (!keeps)
        return fileId;
    const MutexLock guard(lock);
    *onlyOn = connection;
    const RemoteHandle *file = files.Find(fileId);
    return file && !file->gone && file->connection == connection ? file->wireId : 0;
}

void RequestTable::Remember(uint32_t fileId, std::shared_ptr<IReopen> reopen)
{
    const MutexLock guard(lock);
    if (RemoteHandle *file = files.Find(fileId))
        file->reopen = std::move(reopen);
}

std::shared_ptr<IReopen> RequestTable::WayTo(uint32_t fileId)
{
    const MutexLock guard(lock);
    const RemoteHandle *file = files.Find(fileId);
    return file ? file->reopen : nullptr;
}

bool RequestTable::DescribeReopening(uint32_t fileId, Reopening *reopening)
{
    const MutexLock guard(lock);
    const RemoteHandle *file = files.Find(fileId);
    if (!file || !file->reopening)
        return false;
    *reopening = {fileId, file->shareId, connection, file->how, file->reopen};
    return true;
}

RequestTable::Released RequestTable::EndReopening(const Reopening &reopening, nt::NTSTATUS status,
                                                  uint32_t wireId, bool *taken)
{
    *taken = false;
    const MutexLock guard(lock);
    if (reopening.connection != connection)
        return {};
    const auto isMeant = [&](const Slot &slot) {
        return slot.request.FileId == reopening.fileId && slot.request.MajorFunction != IRP_MJ_CREATE &&
               !slot.expected.ofConnection;
    };
    RemoteHandle *file = files.Find(reopening.fileId);
    if (!file)
        return Release(isMeant); // closed meanwhile: what still waits ends
    if (!std::exchange(file->reopening, false))
        return {}; // two were under way
    if (nt::IsError(status)) {
        // Only another file, or none, is for good.
        file->gone = file->gone || status == STATUS_FILE_INVALID;
        Released released;
        for (uint32_t index = 0; index < slotCount; ++index) {
            Slot *slot = SlotOf(index);
            if (slot->state != SlotState::Waiting || slot->sent || !isMeant(*slot))
                continue;
            released.ended.emplace_back(std::move(slot->handler), status);
            EndWait(*slot);
            Free(index);
        }
        return released;
    }
    file->wireId = wireId;
    file->connection = connection;
    *taken = true;
    return Release(isMeant);
}

} // namespace fodr::agent
