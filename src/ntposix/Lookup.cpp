#include "ntposix/Lookup.h"

#include "ntposix/NtCall.h"
#include "ntposix/NtName.h"
#include "ntposix/ShareRoots.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace fodr::ntposix {

using namespace nt;

namespace {

bool IsMissing(int error)
{
    return error == ENOENT || error == ENOTDIR;
}

// A missing directory of the path is another status than a missing file at its end.
NTSTATUS DirectoryStatus(int error)
{
    return IsMissing(error) ? STATUS_OBJECT_PATH_NOT_FOUND : StatusOfErrno(error);
}

// What absolute paths are looked for from: the system's root, or that of a share that they begin with.
class Ground {
public:
    explicit Ground(const HeldRoot *heldRoot) : root(heldRoot) {}

    bool IsTop(const std::string &path) const { return root ? path == root->Path() : path == "/"; }
    const char *Below(const std::string &path) const
    {
        const size_t front = root->Path().size();
        return path.c_str() + std::min(front == 1 ? 1 : front + 1, path.size());
    }
    int Open(const std::string &path, int flags, Fd *opened) const
    {
        if (root)
            return OpenBeneath(*root, Below(path), flags, opened);
        opened->Reset(open(path.c_str(), flags | O_CLOEXEC));
        return *opened ? 0 : errno;
    }

private:
    const HeldRoot *root; // null: the system's
};

// 0 or an errno.
int Probe(const Ground &ground, const std::string &path, Links links, LookupResult *place)
{
    const int noFollow = links == Links::kDontFollow ? O_NOFOLLOW : 0;
    const int error = ground.Open(path, O_PATH | noFollow, &place->descriptor);
    return error == 0 ? StatDescriptor(place->descriptor.Get(), &place->facts) : error;
}

NTSTATUS OpenDirectoryOn(const Ground &ground, const std::string &path, bool exact, Fd *directory,
                         std::string *realPath)
{
    int error = ground.Open(path, O_PATH | O_DIRECTORY, directory);
    if (error == 0) {
        *realPath = path;
        return STATUS_SUCCESS;
    }
    if (error != ENOENT || ground.IsTop(path) || exact)
        return DirectoryStatus(error);
    const PathParts parts = SplitPath(path);
    Fd parent;
    std::string parentPath;
    const NTSTATUS status = OpenDirectoryOn(ground, parts.parent, false, &parent, &parentPath);
    if (status != STATUS_SUCCESS)
        return status;
    const DirectoryLease lease(parent.Get());
    const std::optional<std::string> present = lease.Find(parts.leaf);
    if (!present)
        return lease.Error() == 0 ? STATUS_OBJECT_PATH_NOT_FOUND : StatusOfErrno(lease.Error());
    *realPath = JoinPath(parentPath, *present);
    error = ground.Open(*realPath, O_PATH | O_DIRECTORY, directory);
    return error == 0 ? STATUS_SUCCESS : DirectoryStatus(error);
}

// The spelling of the leaf in place->parent, if it is there.
NTSTATUS FindLeaf(const std::string &leaf, const LookupOptions &options, LookupResult *place,
                  std::optional<std::string> *present)
{
    if (place->exact) {
        FileMetadata facts;
        const int error = StatAt(place->parent.Get(), leaf.c_str(), Links::kDontFollow, &facts);
        if (error == 0)
            *present = leaf;
        return error == 0 || error == ENOENT ? STATUS_SUCCESS : StatusOfErrno(error);
    }
    place->lease.emplace(place->parent.Get());
    if (const int error = place->lease->Error(); error != 0)
        return StatusOfErrno(error);
    *present = place->lease->Find(leaf);
    if (*present || !options.keepLease)
        place->lease.reset();
    return STATUS_SUCCESS;
}

// Where the name as it is written has led nowhere.
NTSTATUS LocateInParent(const Ground &ground, const LookupOptions &options, LookupResult *place)
{
    const PathParts parts = SplitPath(place->path);
    std::string parentPath;
    NTSTATUS status = OpenDirectoryOn(ground, parts.parent, place->exact, &place->parent, &parentPath);
    std::optional<std::string> present;
    if (status == STATUS_SUCCESS)
        status = FindLeaf(parts.leaf, options, place, &present);
    if (status != STATUS_SUCCESS)
        return status;
    place->path = JoinPath(parentPath, present ? *present : parts.leaf);
    if (!present)
        return STATUS_SUCCESS;
    const int error = Probe(ground, place->path, options.links, place);
    if (error != 0 && !IsMissing(error))
        return StatusOfErrno(error);
    place->exists = error == 0;
    place->dangling = error != 0;
    return STATUS_SUCCESS;
}

NTSTATUS LocateOn(const Ground &ground, const LookupOptions &options, LookupResult *place)
{
    if (!options.seemsMissing || ground.IsTop(place->path)) {
        const int error = Probe(ground, place->path, options.links, place);
        place->exists = error == 0;
        if (error == 0)
            return STATUS_SUCCESS;
        if (!IsMissing(error) || ground.IsTop(place->path))
            return StatusOfErrno(error);
    }
    return LocateInParent(ground, options, place);
}

// Back to where nothing has been looked for.
void Reset(LookupResult *place, bool exact)
{
    place->root.reset();
    place->exact = exact;
    place->exists = place->dangling = false;
    place->lease.reset();
    place->parent.Reset();
    place->descriptor.Reset();
}

// Puts the place on the share's root, if the name has one that is there. Whoever asks for the root itself
// while it isn't there is answered as for any other name.
NTSTATUS Hold(const NtName &name, RegisteredRoot::Look look, LookupResult *place)
{
    place->path = name.Path();
    if (!name.Root())
        return STATUS_SUCCESS;
    const bool isTop = name.Below().empty();
    const NTSTATUS status =
        name.Root()->Hold(name.RootPath(), isTop ? RegisteredRoot::Look::Anew : look, &place->root);
    if (status != STATUS_SUCCESS) {
        place->exact |= name.Root()->HasExactName();
        return isTop ? STATUS_SUCCESS : status;
    }
    if (place->root->Path() != place->root->NamedPath())
        place->path = isTop ? place->root->Path() : JoinPath(place->root->Path(), name.Below());
    place->exact |= place->root->Rules().names == CaseRule::Exact;
    return STATUS_SUCCESS;
}

// Nothing is found in a folder that was removed, though there may be another under its name by now.
bool IsGone(const LookupResult &place)
{
    return place.root && !place.exists && place.root->IsRemoved();
}

} // namespace

NTSTATUS Locate(const NtName &name, const LookupOptions &options, LookupResult *place)
{
    auto look = RegisteredRoot::Look::AsHeld;
    for (;;) {
        Reset(place, options.exact);
        NTSTATUS status = Hold(name, look, place);
        if (status != STATUS_SUCCESS)
            return status;
        status = LocateOn(Ground(place->root.get()), options, place);
        if (look == RegisteredRoot::Look::Anew || !IsGone(*place))
            return status;
        look = RegisteredRoot::Look::Anew;
    }
}

int Glance(const NtName &name, const LookupOptions &options, LookupResult *place)
{
    Reset(place, options.exact);
    // The root itself takes a closer look.
    if (Hold(name, RegisteredRoot::Look::AsHeld, place) != STATUS_SUCCESS ||
        (place->root && name.Below().empty()))
        return EAGAIN;
    const HeldRoot *root = place->root.get();
    const char *path = root ? Ground(root).Below(place->path) : place->path.c_str();
    const int error = StatAt(root ? root->Folder() : AT_FDCWD, path, options.links, &place->facts);
    place->exists = error == 0;
    return error;
}

int OpenPlace(const LookupResult &place, int flags, Fd *opened)
{
    return Ground(place.root.get()).Open(place.path, flags, opened);
}

NTSTATUS OpenParent(const NtName &name, bool exact, Fd *directory, std::string *realPath)
{
    LookupResult place;
    place.exact = exact;
    const NTSTATUS status = Hold(name, RegisteredRoot::Look::AsHeld, &place);
    if (status != STATUS_SUCCESS)
        return status;
    const Ground ground(place.root.get());
    if (ground.IsTop(place.path))
        return STATUS_ACCESS_DENIED;
    return OpenDirectoryOn(ground, SplitPath(place.path).parent, place.exact, directory, realPath);
}

NTSTATUS OpenDirectory(const std::string &path, bool exact, Fd *directory, std::string *realPath)
{
    return OpenDirectoryOn(Ground(nullptr), path, exact, directory, realPath);
}

namespace {

bool LeadsTo(const std::string &path, const FileKey &key, Link *link)
{
    PathParts parts = SplitPath(path);
    link->directory.Reset(open(parts.parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!link->directory ||
        StatAt(link->directory.Get(), parts.leaf.c_str(), Links::kDontFollow, &link->facts) != 0 ||
        link->facts.key != key)
        return false;
    link->leaf = std::move(parts.leaf);
    link->path = path;
    return true;
}

bool IsRoot(const std::string &path)
{
    return path == "/";
}

bool StaysInShare(const OpenFile &open)
{
    return open.root && !open.root->IsWholeTree() && !open.root->Rules().linksOutside;
}

// What the kernel says may be no path at all.
bool IsInShare(const OpenFile &open, const std::string &path)
{
    if (path.empty() || path[0] != '/')
        return false;
    if (!StaysInShare(open))
        return true;
    const std::string above = PathByKernel(open.root->Folder());
    return !above.empty() && path.starts_with(above + "/");
}

} // namespace

NTSTATUS FindLink(const OpenFile &open, Link *link)
{
    if (!open.object->HasName(open))
        return STATUS_FILE_DELETED;
    const FileKey key = open.object->key;
    const std::string stored = open.object->PathOf(open);
    if (IsRoot(stored) || IsRootOfShare(open))
        return STATUS_CANNOT_DELETE;
    const bool found = LeadsTo(stored, key, link);
    if (found && link->facts.links == 1)
        return STATUS_SUCCESS;
    // Of several links the kernel knows which one was opened, also when a directory above was renamed and
    // another one has its name.
    const std::string current = PathByKernel(open.fd.Get());
    if (IsRoot(current))
        return STATUS_CANNOT_DELETE;
    Link elsewhere;
    if (current != stored && IsInShare(open, current) && LeadsTo(current, key, &elsewhere)) {
        *link = std::move(elsewhere);
        return STATUS_SUCCESS;
    }
    return found ? STATUS_SUCCESS : STATUS_FILE_DELETED;
}

bool IsMovedOut(const OpenFile &open)
{
    if (!StaysInShare(open) || IsRootOfShare(open))
        return false;
    const std::string path = PathByKernel(open.fd.Get());
    return path.starts_with('/') && !IsInShare(open, path);
}

bool IsRootOfShare(const OpenFile &open)
{
    return open.root && open.root->Key() == open.File().object->key;
}

std::string PathByKernel(int fd)
{
    char path[PATH_MAX];
    const ssize_t length = readlink(DescriptorPath(fd).c_str(), path, sizeof(path));
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

std::string DescriptorPath(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

} // namespace fodr::ntposix
