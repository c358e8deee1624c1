// What the rest of the file server tells change notification. Everything else it hears from the kernel.
#pragma once

#include <sys/types.h>

namespace fodr::ntposix {

// To be called when a directory is marked for deletion, without FileObject::lock: NT ends the notifications
// on it with STATUS_DELETE_PENDING, so that a watcher lets go of its handle and the directory can go.
void NotifyDeletePending(dev_t device, ino_t inode);

} // namespace fodr::ntposix
