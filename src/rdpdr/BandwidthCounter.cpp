#include "rdpdr/BandwidthCounter.h"

#include "rdpdr/wire/PacketKind.h"
#include "runtime/LogCall.h"

#include <new>

namespace fodr {

void BandwidthCounter::Start(uint32_t) {}

void BandwidthCounter::Stop() {}

void BandwidthCounter::ReceivedBytes(const void *data, size_t size)
{
    Count(data, size);
}

void BandwidthCounter::SentBytes(const void *data, size_t size)
{
    Count(data, size);
}

void BandwidthCounter::Count(const void *data, size_t size)
{
    if (!data)
        return;
    uint32_t kind = PacketKind(data, size);
    OVMutexLock held(lock);
    try {
        Total &total = totals[kind];
        total.bytes += size;
        ++total.packets;
    } catch (const std::bad_alloc &) { // the packet matters, its count doesn't
    }
}

void BandwidthCounter::Log()
{
    OVMutexLock held(lock);
    uint64_t sum = 0;
    for (const auto &[kind, total] : totals)
        sum += total.bytes;
    LOG_INFO("Total data transport: %5.3fMB.\n", static_cast<double>(sum) / 1024 / 1024);
    for (const auto &[kind, total] : totals) {
        uint64_t average = total.packets == 0 ? 0 : total.bytes / total.packets;
        double share = sum == 0 ? 0 : static_cast<double>(total.bytes) / static_cast<double>(sum) * 100;
        LOG_INFO("(%s); %llu bytes over %d packets; Average = %llu bytes per packet (%3.5f%%)\n",
                 PacketKindName(kind).c_str(), static_cast<unsigned long long>(total.bytes),
                 static_cast<int>(total.packets), static_cast<unsigned long long>(average), share);
    }
}

} // namespace fodr
