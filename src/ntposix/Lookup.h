// From a name to a file: the exact spelling first, as one step of the kernel; only where that leads nowhere,
// and where the share's rule lets it, component by component without regard to case. Names of a share are
// looked for from its root on and never outside (Beneath.h), others anywhere. Any thread.
#pragma once

#include "lib/misc/Fd.h"
#include "ntposix/DirectoryIndex.h"
#include "ntposix/FileMetadata.h"
#include "ntposix/NtName.h"
#include "ntposix/OpenFile.h"
#include "ntposix/ShareRoots.h"
#include "platform/NtStatus.h"

#include <memory>
#include <optional>
#include <string>

namespace fodr::ntposix {

struct LookupOptions {
    Links links = Links::kFollow;
    bool keepLease = false;    // where the name isn't there, so that it can be created
    bool exact = false;        // the exact spelling alone, whatever the rule
    bool seemsMissing = false; // so its directory is looked for first
};

// Where a name leads. The directory of a file that exists isn't looked for unless it had to be.
struct LookupResult {
    std::shared_ptr<const HeldRoot> root; // null for a name that belongs to no share
    std::string path;   // as it is spelled on disk; the last component as wished where there is no such file
    bool exact = false; // what goes for the spelling in the end
    bool exists = false;
    bool dangling = false; // the last component is a link that leads nowhere
    FileMetadata facts;    // if it exists
    Fd descriptor;         // O_PATH, if it exists
    Fd parent;             // O_PATH; if it doesn't exist
    std::optional<DirectoryLease>
        lease; // of the parent, if it doesn't exist and was wanted; not where `exact`
};

// STATUS_SUCCESS also where only the last component is missing. A missing or improper directory before it is
// STATUS_OBJECT_PATH_NOT_FOUND, a link that leads out of the share STATUS_ACCESS_DENIED.
[[nodiscard]] nt::NTSTATUS Locate(const NtName &name, const LookupOptions &options, LookupResult *place);

// Facts of what seems to be under the exact name, got in the cheapest way: only `root`, `path`, `exact`,
// `exists` and `facts`. In a share it may be a file outside, so nothing may be told or decided by them before
// OpenPlace has opened the same file. 0 or an errno.
[[nodiscard]] int Glance(const NtName &name, const LookupOptions &options, LookupResult *place);

// Opens once more what stands under the place's path now, by the rules of its share. 0 or an errno.
[[nodiscard]] int OpenPlace(const LookupResult &place, int flags, Fd *opened);

// Opens the directory that holds the name's last component, in any case unless `exact` or the share's rule
// says so. `realPath` is how it is spelled on disk.
[[nodiscard]] nt::NTSTATUS OpenParent(const NtName &name, bool exact, Fd *directory, std::string *realPath);

// Opens a directory by a path that belongs to no share.
[[nodiscard]] nt::NTSTATUS OpenDirectory(const std::string &path, bool exact, Fd *directory,
                                         std::string *realPath);

// The name by which an open file stands in its directory, now. Any thread.
struct Link {
    Fd directory; // O_PATH
    std::string leaf;
    std::string path;
    FileMetadata facts;
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
