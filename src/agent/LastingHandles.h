// Open files by numbers that outlive a connection: a slot and a generation, so that a number isn't used again
// soon. No lock of its own.
#pragma once

#include "agent/FileFacts.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace fodr::agent {

// How a file that was opened over an earlier connection is found again. Given by who opened the file. Called
// on any thread, without a lock of the agent's.
class IReopen {
public:
    virtual ~IReopen() = default;
    // The path within the share by now. False: the file has none any more.
    virtual bool Place(std::u16string *path) = 0;
    // The file's id (FileInternalInformation); 0: it isn't known.
    virtual uint64_t ExpectedId() = 0;
    // Asked where ids can't be compared: whether a file of these facts may be the one that was open.
    virtual bool MayBe(const FileFacts &facts) = 0;
};

struct RemoteHandle {
    uint32_t shareId = 0;
    uint32_t connection = 0; // the one that `wireId` belongs to; any other: the file has to be opened again
    uint32_t wireId = 0;
    DR_CREATE_REQ how{};
    std::shared_ptr<IReopen> reopen{}; // null: it can't be opened again
    bool reopening = false;
    bool gone = false; // the file, or its share
};

class LastingHandles {
public:
    // Never 0. 0 when there is no room.
    uint32_t Add(RemoteHandle handle);
    RemoteHandle *Find(uint32_t id);
    // What it was is given back: it may end with others' code, which no lock is held for.
    RemoteHandle Remove(uint32_t id);
    template <class Function> void ForEach(Function &&function)
    {
        for (Slot &slot : slots) {
            if (slot.used)
                function(slot.handle);
        }
    }

private:
    static constexpr uint32_t kIndexBits = 20;
    struct Slot {
        RemoteHandle handle;
        uint32_t generation = 1;
        bool used = false;
    };
    std::vector<Slot> slots;
    std::vector<uint32_t> freeSlots;
};

inline uint32_t LastingHandles::Add(RemoteHandle handle)
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

inline RemoteHandle *LastingHandles::Find(uint32_t id)
{
    const uint32_t index = id & ((1u << kIndexBits) - 1);
    if (index >= slots.size())
        return nullptr;
    Slot &slot = slots[index];
    return slot.used && slot.generation == id >> kIndexBits ? &slot.handle : nullptr;
}

inline RemoteHandle LastingHandles::Remove(uint32_t id)
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
