#include "agent/PacketTraffic.h"

namespace fodr::agent {

void PacketTraffic::Count(const void *data, size_t present, size_t size)
{
    if (present == 0)
        return;
    Total &total = totals[PlaceOfPacketKind(PacketKind(data, present))];
    total.packets.fetch_add(1, std::memory_order_relaxed);
    total.bytes.fetch_add(size, std::memory_order_relaxed);
}

std::vector<PacketTraffic::Row> PacketTraffic::Rows() const
{
    std::vector<Row> rows;
    for (size_t place = 0; place < totals.size(); ++place) {
        const uint64_t packets = totals[place].packets.load(std::memory_order_relaxed);
        const uint64_t bytes = totals[place].bytes.load(std::memory_order_relaxed);
        if (packets != 0)
            rows.push_back({place < kNamedPacketKinds ? PacketKindName(NamedPacketKind(place)) : "other",
                            packets, bytes});
    }
    return rows;
}

} // namespace fodr::agent
