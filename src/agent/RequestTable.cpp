#include "agent/RequestTable.h"

#include "rdpdr/wire/IoRecords.h"

namespace fodr::agent {

bool RequestTable::Add(const Expected &expected, IoHandler &&handler, uint32_t *completionId)
{
    const transport::MutexLock held(lock);
    if (ended || (freeSlots.empty() && slotCount >> kIndexBits != 0))
        return false;
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
    slot->sinceTick = tick;
    slot->handler = std::move(handler);
    ++waiting;
    timed += expected.timed;
    *completionId = slot->generation << kIndexBits | index;
    return true;
}

void RequestTable::EndWait(const Slot &slot)
{
    --waiting;
    timed -= slot.expected.timed;
}

void RequestTable::Complete(ByteSpan packet)
{
    const auto completion = LoadRecord<DR_DEVICE_IOCOMPLETION>(&packet[kHeaderEnd]);
    const uint32_t index = completion.CompletionId & ((1u << kIndexBits) - 1);
    Expected expected;
    IoHandler handler;
    {
        const transport::MutexLock held(lock);
        if (index >= slotCount)
            return;
        Slot *slot = SlotOf(index);
        if (slot->state == SlotState::Free ||
            (slot->generation << kIndexBits | index) != completion.CompletionId)
            return;
        expected = slot->expected;
        handler = std::move(slot->handler);
        if (slot->state == SlotState::Waiting)
            EndWait(*slot);
        slot->state = SlotState::Free;
        ++slot->generation;
        freeSlots.push_back(index);
    }
    const IoResult result = completion.DeviceId == expected.deviceId
                                ? ReadCompletion(packet, expected.answer, expected.limit)
                                : IoResult{.status = STATUS_INVALID_NETWORK_RESPONSE};
    if (handler)
        handler(result);
    else if (expected.answer == AnswerKind::Create && !result.Failed() && orphanHook)
        orphanHook(expected.deviceId, result.fileId);
}

template <class Predicate> void RequestTable::GiveUp(Predicate &&isMeant, nt::NTSTATUS status)
{
    std::vector<IoHandler> handlers;
    {
        const transport::MutexLock held(lock);
        for (uint32_t index = 0; index < slotCount; ++index) {
            Slot *slot = SlotOf(index);
            if (slot->state != SlotState::Waiting || !isMeant(*slot))
                continue;
            handlers.push_back(std::move(slot->handler));
            slot->state = SlotState::GivenUp;
            EndWait(*slot);
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
        const transport::MutexLock held(lock);
        ended = true;
    }
    GiveUp([](const Slot &) { return true; }, status);
}

void RequestTable::Tick(uint32_t maxTicks)
{
    uint32_t now;
    {
        const transport::MutexLock held(lock);
        now = ++tick;
    }
    GiveUp([&](const Slot &slot) { return slot.expected.timed && now - slot.sinceTick > maxTicks; },
           STATUS_IO_TIMEOUT);
}

size_t RequestTable::InFlight() const
{
    const transport::MutexLock held(lock);
    return waiting;
}

bool RequestTable::AnyTimed() const
{
    const transport::MutexLock held(lock);
    return timed != 0;
}

} // namespace fodr::agent
