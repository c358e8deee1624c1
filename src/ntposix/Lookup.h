// From a name to a file: the exact spelling first, as one step of the kernel; only where that leads nowhere,
// and where the share's rule lets it, component by component without regard to case. Names of a share are
// looked for from its root on and never outside (Beneath.h), others anywhere. Any thread.
#pragma once

#include "ntposix/DirectoryIndexes.h"
#include "ntposix/Fd.h"
#include "ntposix/FileFacts.h"
#include "ntposix/NtName.h"
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
struct Place {
    std::shared_ptr<const HeldRoot> root; // null for a name that belongs to no share
    std::string path;   // as it is spelled on disk; the last component as wished where there is no such file
    bool exact = false; // what goes for the spelling in the end
    bool exists = false;
    bool dangling = false; // the last component is a link that leads nowhere
    FileFacts facts;       // if it exists
    Fd descriptor;         // O_PATH, if it exists
    Fd parent;             // O_PATH; if it doesn't exist
    std::optional<DirectoryLease>
        lease; // of the parent, if it doesn't exist and was wanted; not where `exact`
};

// STATUS_SUCCESS also where only the last component is missing. A missing or improper directory before it is
// STATUS_OBJECT_PATH_NOT_FOUND, a link that leads out of the share STATUS_ACCESS_DENIED.
[[nodiscard]] nt::NTSTATUS Locate(const NtName &name, const LookupOptions &options, Place *place);

// Facts of what seems to be under the exact name, got in the cheapest way: only `root`, `path`, `exact`,
// `exists` and `facts`. In a share it may be a file outside, so nothing may be told or decided by them before
// OpenPlace has opened the same file. 0 or an errno.
[[nodiscard]] int Glance(const NtName &name, const LookupOptions &options, Place *place);

// Opens once more what stands under the place's path now, by the rules of its share. 0 or an errno.
[[nodiscard]] int OpenPlace(const Place &place, int flags, Fd *opened);

// Opens the directory that holds the name's last component, in any case unless `exact` or the share's rule
// says so. `realPath` is how it is spelled on disk.
[[nodiscard]] nt::NTSTATUS OpenParent(const NtName &name, bool exact, Fd *directory, std::string *realPath);

// Opens a directory by a path that belongs to no share.
[[nodiscard]] nt::NTSTATUS OpenDirectory(const std::string &path, bool exact, Fd *directory,
                                         std::string *realPath);

} // namespace fodr::ntposix
