// The name by which an open file stands in its directory, now. Any thread.
#pragma once

#include "ntposix/Fd.h"
#include "ntposix/OpenFile.h"

#include <string>

namespace fodr::ntposix {

struct Link {
    Fd directory; // O_PATH
    std::string leaf;
    std::string path;
    FileFacts facts;
};

// Looks under the path of the open first and, if another file or none is there by now, where the kernel says
// the file is. STATUS_FILE_DELETED when it has no name any more, STATUS_CANNOT_DELETE for the root directory,
// which has none in any directory. For a link that was followed it is the name of the file, not of the link.
// What others have moved out of its share has no name there any more.
[[nodiscard]] nt::NTSTATUS FindLink(const OpenFile &open, Link *link);

// Whether others have moved it out of its share, as far as the kernel tells. Not where links may lead
// outside.
[[nodiscard]] bool IsMovedOut(const OpenFile &open);

// Where the kernel says the file of a descriptor is; empty if it can't say.
[[nodiscard]] std::string PathByKernel(int fd);

// Whether it is the folder that a share begins with.
[[nodiscard]] bool IsRootOfShare(const OpenFile &open);

// Of an open descriptor, for calls that don't take an O_PATH one: "/proc/self/fd/N".
[[nodiscard]] std::string DescriptorPath(int fd);

} // namespace fodr::ntposix
