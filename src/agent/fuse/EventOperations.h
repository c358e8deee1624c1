// Puts the EventActor before the operations of the file system: its thread's requests are answered by it.
#pragma once

struct fuse_lowlevel_ops;

namespace fodr::agent {

// Also notes which names the mount's own programs change, and which folders they use.
void RouteActedRequests(fuse_lowlevel_ops *operations);

} // namespace fodr::agent
