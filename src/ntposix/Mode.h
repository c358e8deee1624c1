// Mode, owner and group of what is open, also by a descriptor without data rights. 0 or an errno. Any thread.
#pragma once

#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <sys/types.h>

namespace fodr::ntposix {

int SetMode(int fd, mode_t mode);
// Of what was made by others than this machine's users: a program of theirs isn't to run with the rights of
// whoever owns it here. On directories the group bit gives no rights.
mode_t WithoutSetId(mode_t mode, bool directory);
// Of what was just made with this mode: gives it what the umask took. A bit that its directory gave it stays.
int WidenMode(int fd, mode_t mode);
// EINVAL for fields that are not FODR_SET_*. EPERM for a set-id bit that the file doesn't have.
int ChangeMode(int fd, const nt::FODR_MODE_CHANGE &change);

} // namespace fodr::ntposix
