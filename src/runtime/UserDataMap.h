// Table that turns a number into a value, most often a weak pointer: what is handed to the system or to a
// callback as a number can be resolved later without a dangling pointer. Any thread.
#pragma once

#include "platform/Process.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

namespace fodr {

// Process id and session id in the upper half of a key, so that keys differ between processes.
inline uint64_t UserDataSeed()
{
    static const uint64_t seed = [] {
        uint32_t sessionId;
        platform::CurrentSessionId(sessionId);
        return uint64_t{platform::CurrentProcessId()} << 48 | uint64_t{sessionId & 0xFFFF} << 32;
    }();
    return seed;
}

// Counts up for the whole process.
inline uint32_t NextUserDataNumber()
{
    static std::atomic<uint32_t> number{0};
    return ++number;
}

template <typename T> class UserDataMap : public RCObject {
public:
    UserDataMap() : seed(UserDataSeed()) {}

    // Enters the value under a key that no entry has; the key.
    uint64_t Insert(T value)
    {
        OVMutexLock guard(lock);
        uint64_t key;
        do {
            key = NextUserDataNumber() | seed;
        } while (entries.contains(key));
        entries.insert_or_assign(key, std::move(value));
        count = entries.size();
        return key;
    }

    // A copy, or an empty T when there is no such key.
    T Find(uint64_t key) const
    {
        OVMutexLock guard(lock);
        auto entry = entries.find(key);
        return entry == entries.end() ? T{} : entry->second;
    }

    void Remove(uint64_t key)
    {
        // The value goes after the lock is released: its end may run code of others.
        [[maybe_unused]] auto removed = Extract(key);
    }

    size_t Count() const
    {
        OVMutexLock guard(lock);
        return count;
    }

private:
    auto Extract(uint64_t key)
    {
        OVMutexLock guard(lock);
        auto removed = entries.extract(key);
        count = entries.size();
        return removed;
    }

    std::map<uint64_t, T> entries GUARDED_BY(lock);
    size_t count GUARDED_BY(lock) = 0;
    const uint64_t seed;
    mutable OVMutex lock;
};

} // namespace fodr
