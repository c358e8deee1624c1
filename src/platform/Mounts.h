// Mount points of file systems that a process of this user serves.
#pragma once

#include <string>

namespace fodr::platform {

enum class MountHealth {
    None,  // an ordinary folder, or nothing
    Alive, // something is mounted there
    Dead,  // mounted, but the process that served it is gone
};

MountHealth InspectMount(const std::string &path);

// The same, given up to `timeoutMS` for a process that is just ending: what it serves still looks alive until
// the system has closed its files. Waits only for mounts whose type ends in `ownType`, such as "fodr".
MountHealth InspectEndingMount(const std::string &path, const std::string &ownType, int timeoutMS);

// Takes a mount away at once, even while it is in use. True when nothing is mounted there any more.
bool DetachMount(const std::string &path);

// Why this user can't mount here, as a sentence about what is missing and what to do; empty when he can.
std::string MountProblem();

} // namespace fodr::platform
