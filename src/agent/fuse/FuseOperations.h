// The bridge from libfuse's table of operations to the file system.
#pragma once

struct fuse_lowlevel_ops;

namespace fodr::agent {

// Its functions expect the FileSystem as the session's user data.
const fuse_lowlevel_ops &FuseOperations();

} // namespace fodr::agent
