// Text that a packet carries.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fodr {

class RdpdrStream;

// `prefix` and behind it the UTF-16 text of `byteLength` bytes at the packet's cursor, which ends at its
// first zero unit. Bytes that the packet doesn't hold are zeros, so the memory taken depends on the packet
// and not on the length that it states; of an odd length the last byte is the low half of a unit. False when
// there is no memory.
[[nodiscard]] bool ReadPacketText(RdpdrStream &packet, uint32_t byteLength, const std::u16string &prefix,
                                  std::u16string &text);

// Paths from packets are appended to a share's root as they are: one that doesn't begin with a separator
// would name a neighbour of the root ("docs" and "2\x"). An empty one is the root.
[[nodiscard]] bool BeginsBelowRoot(std::u16string_view relativePath);
// Whether no component is "." or "..", which some file systems follow.
[[nodiscard]] bool HasNoDotComponents(std::u16string_view relativePath);
// Whether the path names the root itself: separators alone, or those and the root's own index, by which NTFS
// opens a folder as well ("\\::$INDEX_ALLOCATION").
[[nodiscard]] bool NamesRoot(std::u16string_view relativePath);

} // namespace fodr
