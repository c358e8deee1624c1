// Open files by numbers that outlive a connection: a slot and a generation, so that a number isn't used again
// soon. No lock of its own.
#pragma once

#include "agent/Reopen.h"
#include "rdpdr/wire/RdpdrRecords.h"

#include <memory>
#include <vector>

namespace fodr::agent {

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

} // namespace fodr::agent
