// How much of an agent's requests is held at once, and what went over the channel.
#pragma once

#include "lib/misc/Mutex.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/OVMutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

namespace fodr {

class RdpdrChannelManager;

// How much of an agent's requests this side holds at once: the packets that wait and are served, with the
// answers that they ask for. Beyond it the reader of the connection waits, and with it the agent. Any thread.
class PacketBudget {
public:
    static constexpr size_t kMostBytes = 64u << 20;
    static constexpr size_t kCostOfAny = 512; // records and bookkeeping of the smallest packet

    // What a packet takes until it is answered.
    static size_t CostOf(RdpdrStream &packet);

    // Waits for room. A packet that is larger than the budget has it alone.
    void Take(size_t cost)
    {
        size_t held = taken.load();
        for (;;) {
            if (held != 0 && (held >= kMostBytes || cost > kMostBytes - held)) {
                taken.wait(held);
                held = taken.load();
            } else if (taken.compare_exchange_weak(held, held + cost)) {
                return;
            }
        }
    }
    void GiveBack(size_t cost)
    {
        taken.fetch_sub(cost);
        taken.notify_all();
    }

private:
    std::atomic<size_t> taken{0};
};

// Whether the packet may wait for something that never comes: it is held without end then, so it is to be
// small (kWaitingPacket bytes are all that is read of it) and outside of the budget.
bool MayWaitForEver(RdpdrStream &packet);
inline constexpr size_t kWaitingPacket = 128;
// Cuts the packet to the bytes that are read of it, if there is memory for the copy.
void DropUnread(RdpdrStreamPtr &stream);

// A packet on its way to the pool. Gives back what it costs at its end at the latest, also when an exception
// ends the task.
struct ReceivedPacket {
    ReceivedPacket(RdpdrChannelManager *receiver, PacketBudget *ofPackets, RdpdrStream *packet)
        : manager(receiver), budget(ofPackets), stream(packet)
    {}
    ~ReceivedPacket()
    {
        stream.reset();
        GiveBackCost();
    }
    ReceivedPacket(const ReceivedPacket &) = delete;
    ReceivedPacket &operator=(const ReceivedPacket &) = delete;

    void GiveBackCost()
    {
        if (cost != 0)
            budget->GiveBack(std::exchange(cost, 0));
    }

    RdpdrChannelManager *const manager;
    PacketBudget *const budget;
    RdpdrStreamPtr stream;
    size_t cost = 0;
};

// Totals of what went over a channel, per kind of packet. Any thread.
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
