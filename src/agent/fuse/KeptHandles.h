// What the kernel has open, by the numbers that it is given for it. Any thread.
#pragma once

#include "lib/misc/Mutex.h"

#include <cstdint>
#include <memory>
#include <unordered_set>
#include <vector>

namespace fodr::agent {

template <class Thing> class KeptHandles {
public:
    using Pointer = std::shared_ptr<Thing>;

    // The number holds until Drop is called for it; the kernel makes no mistakes with it.
    uint64_t Keep(Pointer thing)
    {
        auto kept = std::make_unique<Pointer>(std::move(thing));
        Pointer *place = kept.get();
        const MutexLock held(lock);
        places.insert(place);
        kept.release();
        return reinterpret_cast<uint64_t>(place);
    }
    static const Pointer &Of(uint64_t handle) { return *reinterpret_cast<Pointer *>(handle); }
    Pointer Drop(uint64_t handle)
    {
        std::unique_ptr<Pointer> place(reinterpret_cast<Pointer *>(handle));
        const MutexLock held(lock);
        places.erase(place.get());
        return std::move(*place);
    }
    // Takes all that is left, when the kernel can't come any more.
    std::vector<Pointer> DropAll()
    {
        std::vector<Pointer> things;
        const MutexLock held(lock);
        for (Pointer *place : places) {
            things.push_back(std::move(*place));
            delete place;
        }
        places.clear();
        return things;
    }

private:
    Mutex lock;
    std::unordered_set<Pointer *> places GUARDED_BY(lock);
};

} // namespace fodr::agent
