// Size and reserved space of an open file. 0 or an errno. Any thread.
#pragma once

#include <cstdint>

namespace fodr::ntposix {

// Cuts the file or lets it grow by a hole.
[[nodiscard]] int SetEndOfFile(int fd, int64_t size);
// fallocate(2); ENOSPC without a try where there is surely too little space.
[[nodiscard]] int AllocateFileRange(int fd, int mode, int64_t offset, int64_t length);
// Reserves space up to `size` without changing the end of file. A file system that can't is content without.
[[nodiscard]] int AllocateSpace(int fd, int64_t size);
// FileAllocationInformation: cuts a file that is longer, else reserves.
[[nodiscard]] int SetAllocation(int fd, int64_t size);

} // namespace fodr::ntposix
