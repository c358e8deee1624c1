#include "agent/RequestTable.h"

#include "rdpdr/wire/RdpdrRecords.h"

namespace fodr::agent {
namespace {

constexpr size_t kSmallPayload = 4096; // a slot keeps room for as much

constexpr uint32_t kTurns = 6;

} // namespace

nt::NTSTATUS RequestTable::Add(const Expected &expected, DR_DEVICE_IOREQUEST *request, ByteSpan payload,
                               IoHandler &&handler, Passage *passage)
{
    std::vector<uint8_t> largePayload;
    if (keeps && payload.size() > kSmallPayload)
        largePayload.assign(payload.begin(), payload.end());
    const MutexLock guard(lock);
    if (ended || (freeSlots.empty() && slotCount >> kIndexBits != 0))
        return STATUS_CONNECTION_DISCONNECTED;
    const uint32_t fileId = request->FileId; // this side's
    bool sent = true;
    if (keeps) {
        const Found found = FindWay(expected, request, &passage->fileToReopen, &passage->letGo);
        if (found.way == Way::Ends)
            return found.outcome;
        sent = found.way == Way::Goes;
        if (!sent && !HasRoomToWait(payload.size()))
            return STATUS_CONNECTION_DISCONNECTED;
        if (sent)
            passage->hold = channel;
    }
    if (sent)
        passage->channel = channel.get();
    uint32_t index;
    if (!freeSlots.empty()) {
        index = freeSlots.back();
        freeSlots.pop_back();
    } else {
        index = slotCount++;
        if (index % kChunk == 0)
            chunks.push_back(std::make_unique<Slot[]>(kChunk));
    }
    Slot *slot = SlotOf(index);
    slot->expected = expected;
    slot->state = SlotState::Waiting;
    slot->sent = sent;
    slot->sinceTick = tick;
    slot->wireDevice = request->DeviceId;
    slot->connection = connection;
    slot->handler = std::move(handler);
    ++waiting;
    timed += expected.timed;
    request->CompletionId = slot->generation << kIndexBits | index;
    if (keeps) {
        slot->request = *request;
        slot->request.FileId = fileId;
        if (largePayload.empty())
            slot->payload.assign(payload.begin(), payload.end());
        else
            slot->payload = std::move(largePayload);
        slot->order = ++lastOrder;
        if (!sent)
            Hold(slot);
    }
    return nt::STATUS_PENDING;
}

void RequestTable::EndWait(const Slot &slot)
{
    --waiting;
    timed -= slot.expected.timed;
    if (!slot.sent) {
        --held;
        heldBytes -= slot.payload.size();
    }
}

void RequestTable::Hold(Slot *slot)
{
    slot->sent = false;
    ++held;
    heldBytes += slot->payload.size();
}

void RequestTable::Free(uint32_t index)
{
    Slot *slot = SlotOf(index);
    slot->state = SlotState::Free;
    ++slot->generation;
    freeSlots.push_back(index);
}

void RequestTable::Complete(ByteSpan packet)
{
    const auto completion = LoadRecord<DR_DEVICE_IOCOMPLETION>(&packet[kHeaderEnd]);
    const uint32_t index = completion.CompletionId & ((1u << kIndexBits) - 1);
    Expected expected;
    IoHandler handler;
    RemoteHandle created;
    uint32_t wireDevice;
    std::vector<uint8_t> largePayload; // freed outside the lock
    {
        const MutexLock guard(lock);
        if (index >= slotCount)
            return;
        Slot *slot = SlotOf(index);
        if (slot->state == SlotState::Free ||
            (slot->generation << kIndexBits | index) != completion.CompletionId)
            return;
        expected = slot->expected;
        wireDevice = slot->wireDevice;
        handler = std::move(slot->handler);
        if (slot->state == SlotState::Waiting)
            EndWait(*slot);
        if (keeps && expected.answer == AnswerKind::Create)
            created = {.shareId = expected.deviceId,
                       .connection = slot->connection,
                       .how = slot->request.Body<DR_CREATE_REQ>()};
        lastAnswer = tick;
        if (slot->payload.size() > kSmallPayload)
            largePayload.swap(slot->payload);
        Free(index);
    }
    IoResult result = completion.DeviceId == wireDevice
                          ? ReadCompletion(packet, expected.answer, expected.limit)
                          : IoResult{.status = STATUS_INVALID_NETWORK_RESPONSE};
    const bool opened = expected.answer == AnswerKind::Create && !result.Failed();
    if (!handler) {
        if (opened && orphanHook)
            orphanHook(expected.deviceId, result.fileId);
        return;
    }
    if (keeps && opened && !expected.ofConnection) {
        created.wireId = result.fileId;
        const MutexLock guard(lock);
        result.fileId = files.Add(std::move(created));
    }
    handler(result);
}

template <class Predicate> void RequestTable::GiveUp(Predicate &&isMeant, nt::NTSTATUS status)
{
    std::vector<IoHandler> handlers;
    {
        const MutexLock guard(lock);
        for (uint32_t index = 0; index < slotCount; ++index) {
            Slot *slot = SlotOf(index);
            if (slot->state != SlotState::Waiting || !isMeant(*slot))
                continue;
            handlers.push_back(std::move(slot->handler));
            EndWait(*slot);
            // What wasn't sent is never answered.
            if (slot->sent)
                slot->state = SlotState::GivenUp;
            else
                Free(index);
        }
    }
    const IoResult result = {.status = status};
    for (IoHandler &handler : handlers)
        handler(result);
}

void RequestTable::FailDevice(uint32_t deviceId, nt::NTSTATUS status)
{
    GiveUp([deviceId](const Slot &slot) { return slot.expected.deviceId == deviceId; }, status);
}

void RequestTable::FailAll(nt::NTSTATUS status)
{
    {
        const MutexLock guard(lock);
        ended = true;
    }
    GiveUp([](const Slot &) { return true; }, status);
}

void RequestTable::Tick(uint32_t maxTicks)
{
    uint32_t now, silence;
    {
        const MutexLock guard(lock);
        now = ++tick;
        silence = now - lastAnswer;
    }
    GiveUp(
        [&](const Slot &slot) {
            const uint32_t waited = now - slot.sinceTick;
            return slot.expected.timed && waited > maxTicks &&
                   (silence > maxTicks || waited / kTurns > maxTicks || !slot.sent);
        },
        STATUS_IO_TIMEOUT);
}

size_t RequestTable::InFlight() const
{
    const MutexLock guard(lock);
    return waiting;
}

bool RequestTable::AnyTimed() const
{
    const MutexLock guard(lock);
    return timed != 0;
}

} // namespace fodr::agent
