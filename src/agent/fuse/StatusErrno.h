// What an NT status is to a POSIX program. Any thread.
#pragma once

#include "platform/NtStatus.h"

namespace fodr::agent {

// 0 for a success, else an errno; EIO for what has no better one.
int ErrnoOfStatus(nt::NTSTATUS status);

// Whether it says that nothing has the name.
bool SaysAbsent(nt::NTSTATUS status);
// Of what a folder was asked for: it is absent, or its name is that of a file by now.
bool SaysNoSuchFolder(nt::NTSTATUS status);
// The handle is of no use any more, as after a lost connection; nothing was done with it. Another one may be.
bool SaysStaleHandle(nt::NTSTATUS status);

} // namespace fodr::agent
