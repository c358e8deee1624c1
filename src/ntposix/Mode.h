// Mode, owner and group of what is open, also by a descriptor without data rights. 0 or an errno. Any thread.
#pragma once

#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <sys/types.h>

namespace fodr::ntposix {

int SetMode(int fd, mode_t mode);
// Of what was just made with this mode: gives it what the umask took. A bit that its directory gave it stays.
int WidenMode(int fd, mode_t mode);
// Fields that are not FODR_SET_*: EINVAL.
int ChangeMode(int fd, const nt::FODR_MODE_CHANGE &change);

} // namespace fodr::ntposix
