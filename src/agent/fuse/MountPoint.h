// The directory that is mounted on: whether it can be, and how it is given back. Errors are whole sentences
// that name the path.
#pragma once

#include <string>

namespace fodr::agent {

// Makes sure that the directory can be mounted on; a mount that a dead agent has left there is taken away.
[[nodiscard]] bool PrepareMountPoint(const std::string &path, std::string *error);

enum class UnmountOutcome {
    Unmounted, // or it had been
    Detached,  // in use: it is gone from the tree, and ends with its last user
    Failed,
};
// `path` is absolute, as mountinfo has it. `*remark` says what was in the way.
UnmountOutcome Unmount(const std::string &path, std::string *remark);

} // namespace fodr::agent
