// From the root of a share to its files, by the kernel's own rule: openat2 with RESOLVE_BENEATH, so that no
// name, no link and no ".." of a link's target leads out, whatever is renamed meanwhile. Where the kernel has
// no openat2, and for links with absolute targets, which it refuses, the way is gone component by component
// and links are expanded here. Any thread.
#pragma once

#include "ntposix/Fd.h"
#include "ntposix/ShareRoots.h"

namespace fodr::ntposix {

// `path` is relative; "" and "." are the root itself. `flags` are open(2)'s without O_CREAT; O_CLOEXEC is
// added. 0 or an errno:
//   EACCES   a link leads out of the share, whether there is anything or not (where the rules forbid it)
//   ELOOP    too many links, or one with O_NOFOLLOW; the links of /proc that stand for a process's own files
// An absolute target lies inside when it begins with the root's path as it is now or as it was asked for; it
// is looked for from the root on.
[[nodiscard]] int OpenBeneath(const HeldRoot &root, const char *path, int flags, Fd *opened);

// For tests: without openat2 from now on, or with it if the kernel has it. FODR_WITHOUT_OPENAT2 in the
// environment says so from the start.
void UseOpenat2(bool use);

} // namespace fodr::ntposix
