// Byte-range locks towards other processes: open-file-description locks of the kernel. Any thread.
#pragma once

#include <cstdint>

namespace fodr::ntposix {

enum class ProcessLockType : uint8_t { None, Shared, Exclusive };

// Makes `type` the lock of the descriptor's open file on the range. False when a lock of somebody else is in
// the way. What the kernel can't lock stays unlocked: offsets beyond 2^63, a file system without locks, a
// descriptor that wasn't opened for it (an exclusive lock on one that only reads is taken as a shared one,
// which still keeps writers out).
[[nodiscard]] bool SetProcessLock(int fd, ProcessLockType type, uint64_t offset, uint64_t length);

} // namespace fodr::ntposix
