// What every packet begins with.
#pragma once

#include "rdpdr/wire/RdpdrConstants.h"
#include "rdpdr/wire/WireLayout.h"

#include <cstdint>

namespace fodr {

struct RDPDR_HEADER {
    uint16_t Component = RDPDR_CTYP_CORE;
    uint16_t PacketId = 0;

    using Layout =
        wire::Layout<0, 4, wire::At<0, &RDPDR_HEADER::Component>, wire::At<2, &RDPDR_HEADER::PacketId>>;
};

// The whole packet of a record that begins behind the header: kWireEnd<Packet> bytes.
template <wire::Record Packet> void StorePacket(const Packet &packet, uint8_t *bytes)
{
    static_assert(Packet::Layout::kBegin == kHeaderEnd);
    StoreRecord(Packet::kHeader, bytes);
    StoreRecord(packet, bytes + kHeaderEnd);
}

} // namespace fodr
