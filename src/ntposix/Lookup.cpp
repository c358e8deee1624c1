#include "ntposix/Lookup.h"

#include "ntposix/ErrnoStatus.h"
#include "ntposix/ExactFolders.h"

#include <fcntl.h>

#include <cerrno>

namespace fodr::ntposix {

using namespace nt;

namespace {

// 0 or an errno.
int Probe(int directory, const char *name, LookupOptions options, Place *place)
{
    if (!options.keepDescriptor)
        return StatAt(directory, name, options.links, &place->facts);
    const int noFollow = options.links == Links::kDontFollow ? O_NOFOLLOW : 0;
    place->descriptor.Reset(openat(directory, name, O_PATH | O_CLOEXEC | noFollow));
    return place->descriptor ? StatDescriptor(place->descriptor.Get(), &place->facts) : errno;
}

bool IsMissing(int error)
{
    return error == ENOENT || error == ENOTDIR;
}

// A missing directory of the path is another status than a missing file at its end.
NTSTATUS DirectoryStatus(int error)
{
    return IsMissing(error) ? STATUS_OBJECT_PATH_NOT_FOUND : StatusOfErrno(error);
}

int OpenPath(int directory, const char *name, Fd *opened)
{
    opened->Reset(openat(directory, name, O_PATH | O_DIRECTORY | O_CLOEXEC));
    return *opened ? 0 : errno;
}

// In place->parent, without regard to case unless the spelling is to be exact, which has been tried.
NTSTATUS LocateFolded(const std::string &parentPath, const std::string &leaf, LookupOptions options,
                      Place *place)
{
    place->lease.emplace(place->parent.Get());
    if (const int error = place->lease->Error(); error != 0)
        return StatusOfErrno(error);
    std::optional<std::string> present = place->lease->Find(leaf);
    if (options.exact && present != leaf)
        present.reset();
    if (present || !options.keepLease)
        place->lease.reset();
    place->path = JoinPath(parentPath, present ? *present : leaf);
    if (!present)
        return STATUS_SUCCESS;
    const int error = Probe(place->parent.Get(), present->c_str(), options, place);
    if (error != 0 && !IsMissing(error))
        return StatusOfErrno(error);
    place->exists = error == 0;
    place->dangling = error != 0;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS Locate(const std::string &path, LookupOptions options, Place *place)
{
    const int error = Probe(AT_FDCWD, path.c_str(), options, place);
    if (error == 0) {
        place->exists = true;
        place->path = path;
        return STATUS_SUCCESS;
    }
    if (!IsMissing(error) || path == "/")
        return StatusOfErrno(error);
    const PathParts parts = SplitPath(path);
    std::string parentPath;
    options.exact = options.exact || IsExactFolder(path);
    const NTSTATUS status = OpenDirectory(parts.parent, options.exact, &place->parent, &parentPath);
    if (status != STATUS_SUCCESS)
        return status;
    return LocateFolded(parentPath, parts.leaf, options, place);
}

NTSTATUS OpenDirectory(const std::string &path, bool exact, Fd *directory, std::string *realPath)
{
    int error = OpenPath(AT_FDCWD, path.c_str(), directory);
    if (error == 0) {
        *realPath = path;
        return STATUS_SUCCESS;
    }
    if (error != ENOENT || path == "/" || exact || IsExactFolder(path))
        return DirectoryStatus(error);
    const PathParts parts = SplitPath(path);
    Fd parent;
    std::string parentPath;
    const NTSTATUS status = OpenDirectory(parts.parent, false, &parent, &parentPath);
    if (status != STATUS_SUCCESS)
        return status;
    const DirectoryLease lease(parent.Get());
    const std::optional<std::string> present = lease.Find(parts.leaf);
    if (!present)
        return lease.Error() == 0 ? STATUS_OBJECT_PATH_NOT_FOUND : StatusOfErrno(lease.Error());
    error = OpenPath(parent.Get(), present->c_str(), directory);
    *realPath = JoinPath(parentPath, *present);
    return error == 0 ? STATUS_SUCCESS : DirectoryStatus(error);
}

} // namespace fodr::ntposix
