// What packets are counted as and how they read in the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fodr {

struct DR_CREATE_REQ;

// What a packet is counted as. The accounting of both ends uses the same kinds, so their tables compare.
// The packet id, but of an I/O request its major function. Both are numbers of one key space: an agent's
// policy has the key of a close, and that is meant. What the packet doesn't hold reads as zeros.
uint32_t PacketKind(const void *data, size_t size);

// The kinds that have a name, in ascending order, and where one of them stands; kNamedPacketKinds for any
// other.
inline constexpr size_t kNamedPacketKinds = 25;
uint32_t NamedPacketKind(size_t place);
size_t PlaceOfPacketKind(uint32_t kind);

// "READ", "CORE_DEVICE_IOCOMPLETION"; "Unknown(<hex>)" for another key.
std::string PacketKindName(uint32_t kind);

// Names of what a create asks for (MS-SMB2 2.2.13, where they have the same values). Any thread.
// The names of the five arguments, behind a newline; bits without a name are left out.
std::string CreateFlagsText(const DR_CREATE_REQ &create);

} // namespace fodr
