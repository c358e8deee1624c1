// What the rest of the file server tells change notification. Everything else it hears from inotify.
#pragma once

#include <sys/types.h>

namespace fodr {

// To be called when a directory is marked for deletion: NT ends the notifications on it with
// STATUS_DELETE_PENDING, so that a watcher's handle doesn't keep the directory alive.
void NotifyDeletePending(dev_t device, ino_t inode);

} // namespace fodr
