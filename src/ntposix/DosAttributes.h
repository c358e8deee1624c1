// Hidden and system, which a POSIX file has no bits for: kept in the extended attribute "user.DOSATTRIB", as
// other file servers keep them. Of files and directories; where a file system has no such attributes nothing
// is kept. Any thread.
#pragma once

#include "ntposix/FileFacts.h"

#include <cstdint>

namespace fodr::ntposix {

inline constexpr uint32_t kDosAttributes = 0x6; // FILE_ATTRIBUTE_HIDDEN and FILE_ATTRIBUTE_SYSTEM

// Those of kDosAttributes that are kept. `fd` may be O_PATH.
[[nodiscard]] uint32_t ReadDosAttributes(int fd);
// Keeps those, and leaves what else is kept. Nothing is made for a file that has none. 0 or an errno.
[[nodiscard]] int WriteDosAttributes(int fd, const FileFacts &facts, uint32_t attributes);

} // namespace fodr::ntposix
