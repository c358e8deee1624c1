// What one request may cost, whatever its packet says. docs/security.md lists them with all others.
#pragma once

#include <cstdint>

namespace fodr {

// Bytes of one read. A longer one gets so many: a short count is true, and the agent asks for the rest.
inline constexpr uint32_t kLongestRead = 4u << 20;
// Bytes that a control may put out, likewise.
inline constexpr uint32_t kLongestControlOutput = 1u << 20;
// Bytes of entries in the answer to one listing request.
inline constexpr uint32_t kListingAnswer = 64u << 10;

} // namespace fodr
