// What a packet is counted as. The accounting of both ends uses the same kinds, so their tables compare.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fodr {

// The packet id, but of an I/O request its major function. Both are numbers of one key space: an agent's
// policy has the key of a close, and that is meant. What the packet doesn't hold reads as zeros.
uint32_t PacketKind(const void *data, size_t size);

// "READ", "CORE_DEVICE_IOCOMPLETION"; "Unknown(<hex>)" for another key.
std::string PacketKindName(uint32_t kind);

} // namespace fodr
