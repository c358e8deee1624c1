// One packet as one readable text. Keeps no state but the switch; any thread.
#pragma once

#include <cstddef>
#include <string>

namespace fodr {

// `*out` is what the packet says; what doesn't fit the packet or isn't known is said in its place. Nothing
// outside the packet is read.
void DecodePacket(std::string *out, const void *data, size_t size);

// Whether the text of an I/O request or completion is followed by all of its bytes, as 32-bit words. Off at
// the start; for the whole process.
void SetFullPacketDump(bool on);

} // namespace fodr
