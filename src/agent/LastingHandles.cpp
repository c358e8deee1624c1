#include "agent/LastingHandles.h"

#include <utility>

namespace fodr::agent {

uint32_t LastingHandles::Add(RemoteHandle handle)
{
    uint32_t index;
    if (!freeSlots.empty()) {
        index = freeSlots.back();
        freeSlots.pop_back();
    } else {
        index = static_cast<uint32_t>(slots.size());
        if (index >> kIndexBits != 0)
            return 0;
        slots.emplace_back();
    }
    Slot &slot = slots[index];
    slot.handle = std::move(handle);
    slot.used = true;
    return slot.generation << kIndexBits | index;
}

RemoteHandle *LastingHandles::Find(uint32_t id)
{
    const uint32_t index = id & ((1u << kIndexBits) - 1);
    if (index >= slots.size())
        return nullptr;
    Slot &slot = slots[index];
    return slot.used && slot.generation == id >> kIndexBits ? &slot.handle : nullptr;
}

RemoteHandle LastingHandles::Remove(uint32_t id)
{
    if (!Find(id))
        return {};
    const uint32_t index = id & ((1u << kIndexBits) - 1);
    Slot &slot = slots[index];
    slot.used = false;
    slot.generation = (slot.generation + 1) & ((1u << (32 - kIndexBits)) - 1);
    slot.generation += slot.generation == 0;
    freeSlots.push_back(index);
    return std::exchange(slot.handle, {});
}

} // namespace fodr::agent
