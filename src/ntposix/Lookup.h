// From a name to a file: the exact spelling first, as one step of the kernel; only where that leads nowhere
// component by component without regard to case. Any thread.
#pragma once

#include "ntposix/DirectoryIndexes.h"
#include "ntposix/Fd.h"
#include "ntposix/FileFacts.h"
#include "ntposix/NtName.h"
#include "platform/NtStatus.h"

#include <optional>
#include <string>

namespace fodr::ntposix {

struct LookupOptions {
    Links links = Links::kFollow;
    bool keepDescriptor = false; // an O_PATH one, which the facts are then taken from
    bool keepLease = false;      // where the name isn't there, so that it can be created
    bool exact = false;          // the exact spelling alone
};

// Where a name leads. The directory of a file that exists isn't looked for unless it had to be.
struct Place {
    std::string path; // as it is spelled on disk; the last component as wished where there is no such file
    bool exists = false;
    bool dangling = false;               // the last component is a link that leads nowhere
    FileFacts facts;                     // if it exists
    Fd descriptor;                       // if it exists and was wanted
    Fd parent;                           // O_PATH; if it doesn't exist
    std::optional<DirectoryLease> lease; // of the parent, if it doesn't exist and was wanted
};

// STATUS_SUCCESS also where only the last component is missing. A missing or improper directory before it is
// STATUS_OBJECT_PATH_NOT_FOUND.
[[nodiscard]] nt::NTSTATUS Locate(const std::string &path, LookupOptions options, Place *place);

// Opens a directory by its path, in any case unless `exact`. `realPath` is how it is spelled on disk.
[[nodiscard]] nt::NTSTATUS OpenDirectory(const std::string &path, bool exact, Fd *directory,
                                         std::string *realPath);

} // namespace fodr::ntposix
