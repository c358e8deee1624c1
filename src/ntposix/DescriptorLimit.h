// The process's limit of open files, and what of it is the host's own. Any thread.
#pragma once

namespace fodr::ntposix {

// Descriptors that no open of an agent may take: with none left the host could neither be asked how it does
// nor carry out what it has accepted. Of a small limit it is a quarter.
inline constexpr int kDescriptorReserve = 256;

// Raises the soft limit as far as the hard one and reason allow. False when there was nothing to raise.
[[nodiscard]] bool RaiseDescriptorLimit();

// Whether a handle may keep this descriptor. The kernel gives the lowest number that is free, so a high one
// tells that few are left. The soft limit is raised for it.
[[nodiscard]] bool MayKeepDescriptor(int fd);
// Whether the next one could be kept; looks closely only when the last one was near the end.
[[nodiscard]] bool HasDescriptorRoom();

} // namespace fodr::ntposix
