// Exit codes of the command; docs/command.md lists them. Those of `fodr agent` are agent::AgentExit, with the
// same numbers for the same things.
#pragma once

namespace fodr::cli {

enum ExitCode : int {
    EXIT_DONE = 0,
    EXIT_OTHER = 1,
    EXIT_USAGE = 2,
    EXIT_MOUNT_POINT = 3, // can't be used as one
    EXIT_LOST = 4,        // the agent or the connection is gone
    EXIT_REFUSED = 5,     // the other side doesn't take the share, or us
    EXIT_STILL_USED = 6,  // ended, with files still open in the mount
    EXIT_FOLDER = 7,      // a folder to share can't be shared
    EXIT_NO_FUSE = 8,
    EXIT_NO_PLUGIN = 9,
    EXIT_SSH = 10,           // ssh itself failed, or there is no fodr at the other end
    EXIT_NOT_RUNNING = 11,   // no running host to talk to
    EXIT_CANNOT_START = 126, // the command behind -- can't be started
};

} // namespace fodr::cli
