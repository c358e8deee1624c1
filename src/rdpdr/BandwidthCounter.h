// Totals of what went over a channel, per kind of packet. Any thread.
#pragma once

#include "lib/misc/Mutex.h"
#include "runtime/OVMutex.h"

#include <cstddef>
#include <cstdint>
#include <map>

namespace fodr {

class BandwidthCounter {
public:
    virtual ~BandwidthCounter() = default;

    // Nothing has to be started or stopped; what counts over an interval would.
    virtual void Start(uint32_t intervalMS);
    virtual void Stop();

    // Both directions add to the same totals. A null packet isn't counted.
    virtual void ReceivedBytes(const void *data, size_t size);
    virtual void SentBytes(const void *data, size_t size);

    // The totals, at INFO.
    virtual void Log();

private:
    struct Total {
        uint64_t bytes = 0;
        uint32_t packets = 0;
    };

    void Count(const void *data, size_t size) EXCLUDES(lock);

    std::map<uint32_t, Total> totals GUARDED_BY(lock); // by PacketKind
    OVMutex lock;
};

} // namespace fodr
